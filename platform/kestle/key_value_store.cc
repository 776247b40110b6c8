#include "kestle/key_value_store.h"

#include <utility>

#include "base/files.h"

namespace kestle {

namespace {

constexpr std::string_view kBlanks = " \t";

std::string_view Trim(std::string_view text) {
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

KeyValueLine ReadPair(int number, std::string_view line) {
  const size_t equals = line.find('=');
  const std::string_view key =
      equals == std::string_view::npos ? std::string_view() : Trim(line.substr(0, equals));
  if (key.empty()) return {.number = number, .is_pair = false};
  return {number, true, std::string(key), std::string(line.substr(equals + 1))};
}

}  // namespace

std::vector<KeyValueLine> ReadKeyValueLines(std::string_view text) {
  std::vector<KeyValueLine> lines;
  for (int number = 1; !text.empty(); ++number) {
    const size_t line_end = text.find('\n');
    const std::string_view line = text.substr(0, line_end);
    const std::string_view content = Trim(line);
    if (!content.empty() && content.front() != '#') lines.push_back(ReadPair(number, line));
    text.remove_prefix(line_end == std::string_view::npos ? text.size() : line_end + 1);
  }
  return lines;
}

bool KeyValueStore::Load(const base::FilePath& path) {
  std::string text;
  if (!base::ReadFileToString(path, &text)) return false;
  auto loaded = pairs_;
  for (KeyValueLine& line : ReadKeyValueLines(text)) {
    if (!line.is_pair) return false;
    loaded.insert_or_assign(std::move(line.key), std::move(line.value));
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
