#include "base/printable.h"

#include <algorithm>
#include <cstdint>
#include <iterator>

namespace base {

namespace {

constexpr char32_t kLastCharacter = 0x10FFFF;
// The first character of this length in bytes.
constexpr char32_t kFirstOfLength[] = {0, 0, 0x80, 0x800, 0x10000};

constexpr struct {
  char32_t first;
  char32_t last;
} kUnprintable[] = {
    {0x00, 0x1F},     {0x7F, 0x9F},  // The controls C0, DEL and C1.
    {0x61C, 0x61C},   {0x200E, 0x200F}, {0x202A, 0x202E}, {0x2066, 0x2069},  // Bidirectional.
    {0x2028, 0x2029},  // The line and the paragraph separator.
};

bool IsSurrogate(char32_t character) { return character >= 0xD800 && character <= 0xDFFF; }

bool IsPrintable(char32_t character) {
  return std::none_of(std::begin(kUnprintable), std::end(kUnprintable), [=](const auto& range) {
    return character >= range.first && character <= range.last;
  });
}

// The length of a character with this first byte; zero if the byte is invalid.
size_t LengthOf(uint8_t first) {
  if (first < 0x80) return 1;
  if (first >= 0xC0 && first < 0xE0) return 2;
  if (first >= 0xE0 && first < 0xF0) return 3;
  if (first >= 0xF0 && first < 0xF8) return 4;
  return 0;
}

void AppendHex(char character, std::string* line) {
  static constexpr char kHexDigits[] = "0123456789abcdef";
  const auto byte = static_cast<uint8_t>(character);
  *line += {'\\', 'x', kHexDigits[byte >> 4], kHexDigits[byte & 0xf]};
}

void AppendEscaped(std::string_view bytes, std::string* line) {
  for (const char byte : bytes) {
    if (byte == '\n')
      *line += "\\n";
    else if (byte == '\t')
      *line += "\\t";
    else if (byte == '\r')
      *line += "\\r";
    else
      AppendHex(byte, line);
  }
}

}  // namespace

Utf8Character FirstCharacter(std::string_view text) {
  const auto first = static_cast<uint8_t>(text[0]);
  const size_t length = LengthOf(first);
  if (length == 0 || length > text.size()) return {};
  char32_t character = length == 1 ? first : first & (0x7FU >> length);
  for (const char next : text.substr(1, length - 1)) {
    const auto byte = static_cast<uint8_t>(next);
    if ((byte & 0xC0U) != 0x80U) return {};
    character = character << 6 | (byte & 0x3FU);
  }
  const bool is_valid =
      character >= kFirstOfLength[length] && character <= kLastCharacter && !IsSurrogate(character);
  return is_valid ? Utf8Character{character, length} : Utf8Character{};
}

std::string Printable(std::string_view text) {
  std::string printable;
  while (!text.empty()) {
    const Utf8Character next = FirstCharacter(text);
    const std::string_view bytes = text.substr(0, std::max<size_t>(next.length, 1));
    if (next.length > 0 && IsPrintable(next.value))
      printable += bytes;
    else
      AppendEscaped(bytes, &printable);
    text.remove_prefix(bytes.size());
  }
  return printable;
}

}  // namespace base
