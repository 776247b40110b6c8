// Text from outside, made fit for a log or a terminal.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace base {

struct Utf8Character {
  char32_t value = 0;
  size_t length = 0;  // In bytes; 0: the text starts with no valid UTF-8.
};

// The character at the start of the text, which is not empty. RFC 3629: overlong forms and
// surrogates are invalid.
Utf8Character FirstCharacter(std::string_view text);

// The text with backslash escapes in place of control characters, of those that reorder or break
// lines in Unicode, and of bytes that are no valid UTF-8. Other characters stay as they are.
std::string Printable(std::string_view text);

}  // namespace base
