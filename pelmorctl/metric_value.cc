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
  // Not "inf" and "nan", which from_chars would take.
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

std::optional<kestle::Any> ParseInt64(const std::string& text, std::string* complaint) {
  int64_t value = 0;
  if (base::StringToInt64(text, &value)) return kestle::Any(value);
  *complaint = "'" + text +
               "' is no int64: give a whole number from -9223372036854775808 to "
               "9223372036854775807, without a plus sign";
  return std::nullopt;
}

std::optional<kestle::Any> ParseDouble(const std::string& text, std::string* complaint) {
  double value = 0;
  switch (ReadDouble(text, &value)) {
    case Reading::kNumber:
      return kestle::Any(value);
    case Reading::kOutOfRange:
      *complaint = "'" + text + "' does not fit into a double";
      return std::nullopt;
    case Reading::kNone:
      break;
  }
  *complaint = "'" + text + "' is no double: give a decimal number such as 0.25 or 1e-3";
  return std::nullopt;
}

std::optional<kestle::Any> ParseBool(const std::string& text, std::string* complaint) {
  if (text == "true" || text == "false") return kestle::Any(text == "true");
  *complaint = "'" + text + "' is no bool: give true or false";
  return std::nullopt;
}

std::optional<kestle::Any> ParseString(const std::string& text, std::string* complaint) {
  if (dbus::IsText(text)) return kestle::Any(text);
  *complaint = "the value is no UTF-8 text that the bus carries";
  return std::nullopt;
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

std::optional<kestle::Any> ParseMetricValue(const std::string& text, std::optional<ValueType> type,
                                            std::string* complaint) {
  switch (type.value_or(GuessType(text))) {
    case ValueType::kInt64:
      return ParseInt64(text, complaint);
    case ValueType::kDouble:
      return ParseDouble(text, complaint);
    case ValueType::kBool:
      return ParseBool(text, complaint);
    case ValueType::kString:
      return ParseString(text, complaint);
  }
  return std::nullopt;
}

}  // namespace pelmorctl
