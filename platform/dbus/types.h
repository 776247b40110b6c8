// The basic D-Bus types without a C++ counterpart.
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

// Marks a file descriptor in a message. The descriptor itself belongs to the message, which closes
// it.
struct FileDescriptor {};

}  // namespace dbus
