#include "base/strings.h"

#include <charconv>

namespace base {

namespace {

template <typename Integer>
bool ParseWhole(std::string_view text, Integer* value) {
  Integer parsed{};
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, parsed);
  if (error != std::errc() || stop != end) return false;
  *value = parsed;
  return true;
}

}  // namespace

bool StringToInt(std::string_view text, int* value) { return ParseWhole(text, value); }

bool StringToInt64(std::string_view text, int64_t* value) { return ParseWhole(text, value); }

std::string Int64ToString(int64_t value) { return std::to_string(value); }

}  // namespace base
