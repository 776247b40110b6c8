// A value of any copyable type, such as the contents of a D-Bus variant, and tags that identify the
// types.
//
// A variant read from the bus contains one of: `bool`; the integers from `uint8_t` to `uint64_t`;
// `double`; `std::string`; `dbus::ObjectPath`, `dbus::Signature` and `dbus::FileDescriptor`, which
// are types of their own; `std::vector<uint8_t>` for an array of bytes, `VariantDictionary` for
// a{sv}, and `Array`, `Dictionary` and `Structure` for every other container. A variant in a
// variant is the value inside.
#pragma once

#include <any>
#include <concepts>
#include <cstdint>
#include <map>
#include <string>
#include <type_traits>
#include <typeindex>
#include <utility>
#include <vector>

namespace kestle {

using TypeTag = std::type_index;

template <typename T>
TypeTag GetTypeTag() {
  return typeid(T);
}

// The name of the type as C++ writes it.
std::string GetUndecoratedTypeNameForTag(TypeTag tag);

class Any {
 public:
  Any() = default;
  // Holds a copy of `value`; an array of characters is held as the pointer to its first.
  template <typename T>
  requires(!std::same_as<std::remove_cvref_t<T>, Any>)
      Any(T&& value)  // NOLINT(google-explicit-constructor): values are passed as variants.
      : Any(std::in_place, std::decay_t<T>(std::forward<T>(value))) {}

  // The tag of `void` if empty.
  [[nodiscard]] TypeTag GetTypeTag() const { return value_.type(); }

  // Null if the held type is not exactly T. Valid until this `Any` changes.
  template <typename T>
  [[nodiscard]] const T* TryGet() const {
    return std::any_cast<T>(&value_);
  }

  // True for the integral types, `bool` among them.
  [[nodiscard]] bool IsConvertibleToInteger() const { return to_integer_ != nullptr; }
  // The held integer, converted to 64 signed bits. Precondition: `IsConvertibleToInteger()`.
  [[nodiscard]] int64_t GetAsInteger() const { return to_integer_(value_); }

 private:
  template <typename T>
  Any(std::in_place_t, T value) : value_(std::move(value)) {
    if constexpr (std::is_integral_v<T>) {
      to_integer_ = [](const std::any& held) {
        return static_cast<int64_t>(*std::any_cast<T>(&held));
      };
    }
  }

  std::any value_;
  int64_t (*to_integer_)(const std::any&) = nullptr;
};

// a{sv}: named values.
using VariantDictionary = std::map<std::string, Any>;

struct Array {
  std::vector<Any> items;
};
// The entries in the order of the message.
struct Dictionary {
  std::vector<std::pair<Any, Any>> entries;
};
struct Structure {
  std::vector<Any> fields;
};

}  // namespace kestle
