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
bool IsTagOf(kestle::TypeTag tag) {
  return tag == kestle::GetTypeTag<T>();
}

}  // namespace

void EncodeTypedValue(const kestle::Any& value, base::DictionaryValue* out) {
  const kestle::TypeTag tag = value.GetTypeTag();
  if (IsTagOf<std::string>(tag)) {
    out->SetString(kStringValue, *value.TryGet<std::string>());
  } else if (IsTagOf<const char*>(tag)) {
    out->SetString(kStringValue, *value.TryGet<const char*>());
  } else if (IsTagOf<char*>(tag)) {
    out->SetString(kStringValue, *value.TryGet<char*>());
  } else if (IsTagOf<double>(tag)) {
    out->SetDouble(kDoubleValue, *value.TryGet<double>());
  } else if (IsTagOf<bool>(tag)) {
    // Before the integers, since a bool is convertible to one.
    out->SetBoolean(kBoolValue, *value.TryGet<bool>());
  } else if (value.IsConvertibleToInteger()) {
    out->SetString(kInt64Value, base::Int64ToString(value.GetAsInteger()));
  } else {
    LOG(FATAL) << "Unknown type: " << kestle::GetUndecoratedTypeNameForTag(tag);
  }
}

}  // namespace varelnos::ap
