// The value of a metric, from the text on the command line.
//
// A value of a type that the daemon cannot encode would stop the daemon, and is never returned.
#pragma once

#include <optional>
#include <string>

#include "base/result.h"
#include "kestle/any.h"

namespace pelmorctl {

enum class ValueType { kInt64, kDouble, kBool, kString };

// From "int64", "double", "bool" or "string".
[[nodiscard]] std::optional<ValueType> ParseValueType(const std::string& name);

// Reads `text` as a value of `type`. Without a type, "true" and "false" are booleans, a whole
// number in range is an int64, any other decimal number is a double, and everything else is a
// string. The value is a `bool`, `int64_t`, `double` or `std::string`.
base::Result<kestle::Any> ParseMetricValue(const std::string& text, std::optional<ValueType> type);

}  // namespace pelmorctl
