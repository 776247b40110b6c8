#include "pelmorctl/daemon_status.h"

#include <algorithm>

#include "base/strings.h"

namespace pelmorctl {

namespace {

// The characters of each part.
constexpr char kLetters[] = "abcdefghijklmnopqrstuvwxyz";
constexpr char kNameCharacters[] = "abcdefghijklmnopqrstuvwxyz_";
constexpr char kDigits[] = "0123456789";

// Takes the parts of a line one after another. A method returns an empty text if its part is not
// next.
class Scanner {
 public:
  explicit Scanner(const std::string& line) : line_(line) {}

  [[nodiscard]] bool AtEnd() const { return at_ == line_.size(); }
  bool Take(const std::string& text) {
    if (line_.compare(at_, text.size(), text) != 0) return false;
    at_ += text.size();
    return true;
  }
  std::string TakeName() { return TakeAll(kNameCharacters); }
  std::string TakeValue() {
    if (Take("\"")) return TakeQuoted();
    const std::string sign = Take("-") ? "-" : "";
    const std::string number = TakeAll(kDigits);
    if (!number.empty()) return sign + number;
    return sign.empty() ? TakeAll(kLetters) : "";
  }

 private:
  std::string TakeAll(const char* characters) {
    const size_t end = std::min(line_.find_first_not_of(characters, at_), line_.size());
    const size_t start = std::exchange(at_, end);
    return line_.substr(start, end - start);
  }
  std::string TakeQuoted() {
    const size_t start = at_ - 1;
    const auto is_text = [](char c) { return c >= ' ' && c <= '~' && c != '"' && c != '\\'; };
    while (!AtEnd() && is_text(line_[at_])) ++at_;
    return Take("\"") ? line_.substr(start, at_ - start) : "";
  }

  const std::string& line_;
  size_t at_ = 0;
};

bool TakeSection(Scanner* scanner, StatusSection* section) {
  section->name = scanner->TakeName();
  while (scanner->Take(" ")) {
    const std::string key = scanner->TakeName();
    const std::string value = scanner->Take("=") ? scanner->TakeValue() : "";
    if (key.empty() || value.empty()) return false;
    section->items.emplace_back(key, value);
  }
  return !section->name.empty() && !section->items.empty();
}

}  // namespace

std::optional<DaemonStatus> DaemonStatus::Parse(const std::string& line) {
  Scanner scanner(line);
  DaemonStatus status;
  do {
    if (!TakeSection(&scanner, &status.sections_.emplace_back())) return std::nullopt;
  } while (scanner.Take("; "));
  if (!scanner.AtEnd()) return std::nullopt;
  return status;
}

const StatusSection* DaemonStatus::Find(const std::string& name) const {
  const auto found =
      std::find_if(sections_.begin(), sections_.end(),
                   [&](const StatusSection& section) { return section.name == name; });
  return found == sections_.end() ? nullptr : &*found;
}

std::string DaemonStatus::Text(const std::string& section, const std::string& key) const {
  const StatusSection* const found = Find(section);
  if (!found) return "";
  const auto item = std::find_if(found->items.begin(), found->items.end(),
                                 [&](const auto& one) { return one.first == key; });
  if (item == found->items.end()) return "";
  const std::string& value = item->second;
  return value.front() == '"' ? value.substr(1, value.size() - 2) : value;
}

int64_t DaemonStatus::Number(const std::string& section, const std::string& key) const {
  int64_t number = 0;
  return base::StringToInt64(Text(section, key), &number) ? number : 0;
}

}  // namespace pelmorctl
