// The cached value of one remote property, in its C++ type. Lives with the property set that it is
// registered in.
#pragma once

#include <string>
#include <utility>

#include "dbus/property_set.h"
#include "kestle/dbus_utils/value_codec.h"

namespace kestle::dbus_utils {

template <typename T>
class Property : public dbus::PropertyBase {
 public:
  // The type's default value until one has arrived.
  [[nodiscard]] const T& value() const { return value_; }

  [[nodiscard]] std::string GetSignature() const override { return DBusType<T>::Signature(); }
  [[nodiscard]] bool ReadFrom(dbus::MessageReader* reader) override {
    T value{};
    if (!DBusType<T>::Read(reader, &value)) return false;
    value_ = std::move(value);
    return true;
  }

 private:
  T value_{};
};

}  // namespace kestle::dbus_utils
