// The value of a metric, from the text on the command line.
//
// Only values that the daemon takes can come of it: a value of another type would stop the daemon.
#pragma once

#include <optional>
#include <string>

#include "kestle/any.h"

namespace pelmorctl {

enum class ValueType { kInt64, kDouble, kBool, kString };

// By its name: "int64", "double", "bool" or "string".
std::optional<ValueType> ParseValueType(const std::string& name);

// Reads `text` as a value of `type`. Without a type it is what it looks like: "true" and "false"
// are booleans, a whole number in range is an int64, any other decimal number is a double, and the
// rest is a string. Holds a `bool`, `int64_t`, `double` or `std::string`; when the text is no such
// value, returns nothing and says why in `complaint`.
std::optional<kestle::Any> ParseMetricValue(const std::string& text, std::optional<ValueType> type,
                                            std::string* complaint);

}  // namespace pelmorctl
