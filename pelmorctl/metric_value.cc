#include "pelmorctl/metric_value.h"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <string_view>

#include "base/strings.h"
#include "dbus/text.h"

namespace pelmorctl {

namespace {

constexpr struct {
  const char* name;
  ValueType type;
} kTypes[] = {{"int64", ValueType::kInt64},
              {"double", ValueType::kDouble},
              {"bool", ValueType::kBool},
              {"string", ValueType::kString}};

bool LooksLikeNumber(std::string_view text) {
  if (!text.empty() && text.front() == '-') text.remove_prefix(1);
  if (!text.empty() && text.front() == '.') text.remove_prefix(1);
  // Excludes "inf" and "nan", which from_chars accepts.
  return !text.empty() && text.front() >= '0' && text.front() <= '9';
}

enum class Reading { kNumber, kOutOfRange, kNone };

Reading ReadDouble(std::string_view text, double* value) {
  if (!LooksLikeNumber(text)) return Reading::kNone;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, *value);
  if (stop != end) return Reading::kNone;
  if (error == std::errc::result_out_of_range) return Reading::kOutOfRange;
  return error == std::errc() ? Reading::kNumber : Reading::kNone;
}

base::Result<kestle::Any> ParseInt64(const std::string& text) {
  int64_t value = 0;
  if (base::StringToInt64(text, &value)) return kestle::Any(value);
  return base::Failure{"'" + text +
                       "' is not an int64: give a whole number from -9223372036854775808 to "
                       "9223372036854775807, without a plus sign"};
}

base::Result<kestle::Any> ParseDouble(const std::string& text) {
  double value = 0;
  const Reading reading = ReadDouble(text, &value);
  if (reading == Reading::kNumber) return kestle::Any(value);
  return base::Failure{"'" + text +
                       (reading == Reading::kOutOfRange
                            ? "' does not fit into a double"
                            : "' is not a double: give a decimal number such as 0.25 or 1e-3")};
}

base::Result<kestle::Any> ParseBool(const std::string& text) {
  if (text == "true" || text == "false") return kestle::Any(text == "true");
  return base::Failure{"'" + text + "' is not a bool: give true or false"};
}

base::Result<kestle::Any> ParseString(const std::string& text) {
  if (dbus::IsText(text)) return kestle::Any(text);
  return base::Failure{"the value is not UTF-8 text that D-Bus can carry"};
}

ValueType GuessType(const std::string& text) {
  if (text == "true" || text == "false") return ValueType::kBool;
  int64_t whole = 0;
  if (base::StringToInt64(text, &whole)) return ValueType::kInt64;
  double number = 0;
  return ReadDouble(text, &number) == Reading::kNone ? ValueType::kString : ValueType::kDouble;
}

}  // namespace

std::optional<ValueType> ParseValueType(const std::string& name) {
  for (const auto& known : kTypes) {
    if (name == known.name) return known.type;
  }
  return std::nullopt;
}

base::Result<kestle::Any> ParseMetricValue(const std::string& text, std::optional<ValueType> type) {
  switch (type.value_or(GuessType(text))) {
    case ValueType::kInt64:
      return ParseInt64(text);
    case ValueType::kDouble:
      return ParseDouble(text);
    case ValueType::kBool:
      return ParseBool(text);
    case ValueType::kString:
      break;
  }
  return ParseString(text);
}

}  // namespace pelmorctl
