#include "ap/pelmor/typed_value.h"

#include <string>

#include "base/logging.h"
#include "base/strings.h"

namespace varelnos::ap {

namespace {

constexpr char kStringValue[] = "stringValue";
constexpr char kDoubleValue[] = "doubleValue";
constexpr char kBoolValue[] = "boolValue";
constexpr char kInt64Value[] = "int64Value";

template <typename T>
bool Holds(const kestle::Any& value) {
  return value.GetTypeTag() == kestle::GetTypeTag<T>();
}

}  // namespace

void EncodeTypedValue(const kestle::Any& value, base::DictionaryValue* out) {
  if (Holds<std::string>(value)) {
    out->SetString(kStringValue, *value.TryGet<std::string>());
  } else if (Holds<const char*>(value)) {
    out->SetString(kStringValue, *value.TryGet<const char*>());
  } else if (Holds<char*>(value)) {
    out->SetString(kStringValue, *value.TryGet<char*>());
  } else if (Holds<double>(value)) {
    out->SetDouble(kDoubleValue, *value.TryGet<double>());
  } else if (Holds<bool>(value)) {
    // Before the integers, of which it is one too.
    out->SetBoolean(kBoolValue, *value.TryGet<bool>());
  } else if (value.IsConvertibleToInteger()) {
    out->SetString(kInt64Value, base::Int64ToString(value.GetAsInteger()));
  } else {
    LOG(FATAL) << "Unknown type: " << kestle::GetUndecoratedTypeNameForTag(value.GetTypeTag());
  }
}

}  // namespace varelnos::ap
