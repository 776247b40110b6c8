#include "dbus/text.h"

#include "base/printable.h"

namespace dbus {

namespace {

constexpr char32_t kFirstArabicNoncharacter = 0xFDD0;
constexpr char32_t kLastArabicNoncharacter = 0xFDEF;

bool IsSendable(char32_t character) {
  if (character == 0) return false;
  if (character >= kFirstArabicNoncharacter && character <= kLastArabicNoncharacter) return false;
  // The last two of each plane.
  return (character & 0xFFFE) != 0xFFFE;
}

}  // namespace

bool IsText(std::string_view text) {
  while (!text.empty()) {
    const base::Utf8Character next = base::FirstCharacter(text);
    if (next.length == 0 || !IsSendable(next.value)) return false;
    text.remove_prefix(next.length);
  }
  return true;
}

}  // namespace dbus
