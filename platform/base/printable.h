// Makes text from outside safe for a log or a terminal.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace base {

struct Utf8Character {
  char32_t value = 0;
  size_t length = 0;  // In bytes; 0: the text does not start with valid UTF-8.
};

// The first character of the text, which must not be empty. As in RFC 3629, overlong forms and
// surrogates are invalid.
Utf8Character FirstCharacter(std::string_view text);

// The text with backslash escapes instead of control characters, of Unicode characters that reorder
// text or break lines, and of invalid UTF-8.
std::string Printable(std::string_view text);

}  // namespace base
