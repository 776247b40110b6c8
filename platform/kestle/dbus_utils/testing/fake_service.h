// The fake remote service (`dbus/testing/fake_service.h`) with C++ values for properties.
#pragma once

#include <string>

#include "dbus/testing/fake_service.h"
#include "kestle/any.h"
#include "kestle/dbus_utils/value_codec.h"

namespace kestle::dbus_utils {

// Writes one argument.
template <typename T>
dbus::FakeService::Writer Write(const T& value) {
  return [value](dbus::MessageWriter* writer) { DBusType<T>::Write(writer, value); };
}

class FakeService : public dbus::FakeService {
 public:
  using dbus::FakeService::FakeService;

  void AddObject(const std::string& path, const std::string& interface,
                 const VariantDictionary& properties) {
    Properties writers;
    for (const auto& [name, value] : properties) writers[name] = Write(value);
    dbus::FakeService::AddObject(path, interface, writers);
  }
  void ChangeProperty(const std::string& path, const std::string& interface,
                      const std::string& name, const Any& value) {
    dbus::FakeService::ChangeProperty(path, interface, name, Write(value));
  }
  void InvalidateProperty(const std::string& path, const std::string& interface,
                          const std::string& name, const Any& value) {
    dbus::FakeService::InvalidateProperty(path, interface, name, Write(value));
  }
};

}  // namespace kestle::dbus_utils
