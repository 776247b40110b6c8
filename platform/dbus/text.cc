#include "dbus/text.h"

#include <cstddef>
#include <cstdint>

namespace dbus {

namespace {

constexpr uint32_t kFirstSurrogate = 0xD800;
constexpr uint32_t kLastSurrogate = 0xDFFF;
constexpr uint32_t kFirstArabicNoncharacter = 0xFDD0;
constexpr uint32_t kLastArabicNoncharacter = 0xFDEF;
constexpr uint32_t kLastCharacter = 0x10FFFF;
// The first character that takes so many bytes.
constexpr uint32_t kFirstOfLength[] = {0, 0, 0x80, 0x800, 0x10000};

bool IsCharacter(uint32_t character) {
  if (character == 0 || character > kLastCharacter) return false;
  if (character >= kFirstSurrogate && character <= kLastSurrogate) return false;
  if (character >= kFirstArabicNoncharacter && character <= kLastArabicNoncharacter) return false;
  // The last two of each plane.
  return (character & 0xFFFE) != 0xFFFE;
}

// Of the character that starts with the byte; zero when none does.
size_t LengthOf(uint8_t first) {
  if (first < 0x80) return 1;
  if (first >= 0xC0 && first < 0xE0) return 2;
  if (first >= 0xE0 && first < 0xF0) return 3;
  if (first >= 0xF0 && first < 0xF8) return 4;
  return 0;
}

// The length of the character at the start of the text, which is not empty; zero when there is none
// that may be sent.
size_t LengthOfFirst(std::string_view text) {
  const auto first = static_cast<uint8_t>(text[0]);
  const size_t length = LengthOf(first);
  if (length == 0 || length > text.size()) return 0;
  uint32_t character = length == 1 ? first : first & (0x7FU >> length);
  for (const char next : text.substr(1, length - 1)) {
    const auto byte = static_cast<uint8_t>(next);
    if ((byte & 0xC0U) != 0x80U) return 0;
    character = character << 6 | (byte & 0x3FU);
  }
  return character >= kFirstOfLength[length] && IsCharacter(character) ? length : 0;
}

}  // namespace

bool IsText(std::string_view text) {
  while (!text.empty()) {
    const size_t length = LengthOfFirst(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

}  // namespace dbus
