// Conversions between numbers and decimal text.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace base {

// Accept an optional "-" and digits, nothing else, in the type's range. On failure return false and
// leave `value` unchanged.
[[nodiscard]] bool StringToInt(std::string_view text, int* value);
[[nodiscard]] bool StringToInt64(std::string_view text, int64_t* value);

std::string Int64ToString(int64_t value);

}  // namespace base
