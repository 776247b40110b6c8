// An exported D-Bus object: its interfaces and the C++ methods that answer their calls.
//
// Add the methods first, then register the object, once. It is exported until it is destroyed.
// Calls are dispatched from the message loop, one at a time.
#pragma once

#include <systemd/sd-bus.h>

#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "base/callback.h"
#include "base/logging.h"
#include "base/ref_counted.h"
#include "dbus/bus.h"
#include "dbus/message.h"
#include "dbus/slot.h"
#include "dbus/types.h"
#include "kestle/dbus_utils/async_event_sequencer.h"
#include "kestle/dbus_utils/calls.h"
#include "kestle/dbus_utils/exported_object_manager.h"
#include "kestle/dbus_utils/value_codec.h"
#include "kestle/error.h"

namespace kestle::dbus_utils {

class DBusInterface {
 public:
  // Reads the arguments and performs the call. True sends an empty success reply, false an error
  // reply with the head of the chain.
  using Handler = base::Callback<bool(dbus::MessageReader* reader, ErrorPtr* error)>;
  struct Method {
    std::string name;
    std::string signature;
    // Each ends with a zero byte, as sd-bus's table of methods requires.
    std::string argument_names;
    Handler handler;
  };

  DBusInterface() = default;
  DBusInterface(const DBusInterface&) = delete;
  DBusInterface& operator=(const DBusInterface&) = delete;

  // Dispatches calls to `method` of `instance` (not owned; outlives the object). A call whose
  // arguments do not match gets an InvalidArgs error instead. Precondition: one name per argument.
  template <typename Instance, typename Class, typename... Args>
  void AddSimpleMethodHandlerWithError(const std::string& name,
                                       const std::vector<std::string>& argument_names,
                                       Instance* instance,
                                       bool (Class::*method)(ErrorPtr*, Args...)) {
    CHECK(argument_names.size() == sizeof...(Args));
    const auto handler = [=](dbus::MessageReader* reader, ErrorPtr* error) {
      std::tuple<std::remove_cvref_t<Args>...> arguments;
      const auto call = [&](auto&... values) {
        return ReadArguments(reader, error, &values...) && (instance->*method)(error, values...);
      };
      return std::apply(call, arguments);
    };
    AddMethod(name, (DBusType<std::remove_cvref_t<Args>>::Signature() + ... + std::string()),
              argument_names, handler);
  }

  [[nodiscard]] const std::vector<Method>& methods() const { return methods_; }

 private:
  void AddMethod(const std::string& name, const std::string& signature,
                 const std::vector<std::string>& argument_names, const Handler& handler);

  std::vector<Method> methods_;
};

class DBusObject {
 public:
  // `object_manager` is not owned and outlives the object; null if no manager is to list it.
  DBusObject(ExportedObjectManager* object_manager, const scoped_refptr<dbus::Bus>& bus,
             const dbus::ObjectPath& path);
  ~DBusObject();
  DBusObject(const DBusObject&) = delete;
  DBusObject& operator=(const DBusObject&) = delete;

  // Owned by the object.
  DBusInterface* AddOrGetInterface(const std::string& name);

  // Exports the object. `completion` runs before this returns, with false if the path or a name is
  // invalid or in use.
  void RegisterAsync(const AsyncEventSequencer::CompletionAction& completion);

 private:
  struct Vtable;

  static int OnCall(sd_bus_message* call, void* object, sd_bus_error* error);
  const DBusInterface::Method* FindMethod(sd_bus_message* call) const;
  [[nodiscard]] bool Export();
  [[nodiscard]] bool ExportInterface(const std::string& name, const DBusInterface& interface);

  ExportedObjectManager* const object_manager_;
  const scoped_refptr<dbus::Bus> bus_;
  const dbus::ObjectPath path_;
  std::map<std::string, std::unique_ptr<DBusInterface>> interfaces_;
  // The exports point into these, and are destroyed first.
  std::vector<std::unique_ptr<Vtable>> vtables_;
  std::vector<dbus::Slot> exports_;
  bool registered_ = false;
};

}  // namespace kestle::dbus_utils
