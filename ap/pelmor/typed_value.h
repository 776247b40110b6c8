// A metric value in a request: one member whose key is the type.
#pragma once

#include "base/values.h"
#include "kestle/any.h"

namespace varelnos::ap {

// Sets "stringValue", "doubleValue", "boolValue" or "int64Value" on `out`. An integer of any width
// becomes a decimal text of 64 signed bits, since JSON parsers may round large numbers. A value of
// any other type is a fatal error.
void EncodeTypedValue(const kestle::Any& value, base::DictionaryValue* out);

}  // namespace varelnos::ap
