// The D-Bus basic types that C++ has no type of its own for.
#pragma once

#include <compare>
#include <string>
#include <utility>

namespace dbus {

class ObjectPath {
 public:
  ObjectPath() = default;
  explicit ObjectPath(std::string value) : value_(std::move(value)) {}
  [[nodiscard]] const std::string& value() const { return value_; }
  auto operator<=>(const ObjectPath&) const = default;

 private:
  std::string value_;
};

class Signature {
 public:
  Signature() = default;
  explicit Signature(std::string value) : value_(std::move(value)) {}
  [[nodiscard]] const std::string& value() const { return value_; }
  auto operator<=>(const Signature&) const = default;

 private:
  std::string value_;
};

// Stands for a descriptor in a message. The descriptor itself stays with the message and is closed
// with it.
struct FileDescriptor {};

}  // namespace dbus
