#include "pelmorctl/config_lines.h"

#include <string_view>

namespace pelmorctl {

namespace {

std::string_view Trim(std::string_view text) {
  constexpr std::string_view kBlanks = " \t";
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

ConfigLine ReadPair(int number, std::string_view line) {
  const size_t equals = line.find('=');
  const std::string_view key =
      equals == std::string_view::npos ? std::string_view() : Trim(line.substr(0, equals));
  if (key.empty()) return {.number = number, .is_pair = false};
  return {number, true, std::string(key), std::string(line.substr(equals + 1))};
}

}  // namespace

std::vector<ConfigLine> ReadConfigLines(const std::string& text) {
  std::vector<ConfigLine> lines;
  std::string_view rest = text;
  for (int number = 1; !rest.empty(); ++number) {
    const size_t line_end = rest.find('\n');
    const std::string_view line = rest.substr(0, line_end);
    const std::string_view content = Trim(line);
    if (!content.empty() && content.front() != '#') lines.push_back(ReadPair(number, line));
    rest = line_end == std::string_view::npos ? std::string_view() : rest.substr(line_end + 1);
  }
  return lines;
}

}  // namespace pelmorctl
