// A metric value as it stands in a request: one member whose key names the type.
#pragma once

#include "base/values.h"
#include "kestle/any.h"

namespace varelnos::ap {

// Sets "stringValue", "doubleValue", "boolValue" or "int64Value" on `out`. An integer of any width
// goes out as 64 signed bits in decimal text, since a JSON number can't be trusted to carry them. A
// value of any other type is a fatal error.
void EncodeTypedValue(const kestle::Any& value, base::DictionaryValue* out);

}  // namespace varelnos::ap
