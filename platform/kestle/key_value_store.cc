#include "kestle/key_value_store.h"

#include <string_view>

#include "base/files.h"

namespace kestle {

namespace {

constexpr std::string_view kBlanks = " \t";

std::string_view Trim(std::string_view text) {
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

bool AddLine(std::string_view line, std::map<std::string, std::string>* pairs) {
  const std::string_view content = Trim(line);
  if (content.empty() || content.front() == '#') return true;
  const size_t equals = line.find('=');
  if (equals == std::string_view::npos) return false;
  const std::string_view key = Trim(line.substr(0, equals));
  if (key.empty()) return false;
  pairs->insert_or_assign(std::string(key), std::string(line.substr(equals + 1)));
  return true;
}

}  // namespace

bool KeyValueStore::Load(const base::FilePath& path) {
  std::string text;
  if (!base::ReadFileToString(path, &text)) return false;
  auto loaded = pairs_;
  std::string_view rest = text;
  while (!rest.empty()) {
    const size_t line_end = rest.find('\n');
    if (!AddLine(rest.substr(0, line_end), &loaded)) return false;
    rest = line_end == std::string_view::npos ? std::string_view() : rest.substr(line_end + 1);
  }
  pairs_ = std::move(loaded);
  return true;
}

bool KeyValueStore::GetString(const std::string& key, std::string* value) const {
  const auto pair = pairs_.find(key);
  if (pair == pairs_.end()) return false;
  *value = pair->second;
  return true;
}

}  // namespace kestle
