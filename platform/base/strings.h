// Numbers from and to decimal text.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace base {

// Accept a whole decimal text: an optional "-" and digits, nothing else, in range. On failure
// return false and leave `value` alone.
[[nodiscard]] bool StringToInt(std::string_view text, int* value);
[[nodiscard]] bool StringToInt64(std::string_view text, int64_t* value);

std::string Int64ToString(int64_t value);

}  // namespace base
