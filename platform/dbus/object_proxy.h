// A remote object: calls its methods and listens to its signals.
//
// Owned by the bus. All callbacks run on the message loop.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "base/callback.h"
#include "dbus/message.h"
#include "dbus/types.h"

struct sd_bus_slot;

namespace dbus {

class Bus;

struct SlotDeleter {
  void operator()(sd_bus_slot* slot) const;
};
// A match, a pending call or an export; ends with the pointer.
using Slot = std::unique_ptr<sd_bus_slot, SlotDeleter>;

class ObjectProxy {
 public:
  // Milliseconds; stands for the binding's default time-out (25 s).
  static constexpr int kTimeoutUseDefault = -1;

  using SignalCallback = base::Callback<void(const Signal&)>;
  using OnConnectedCallback =
      base::Callback<void(const std::string& interface, const std::string& signal, bool success)>;
  // The response may be an error reply.
  using ResponseCallback = base::Callback<void(const Response&)>;

  ObjectProxy(Bus* bus, std::string service_name, ObjectPath path);
  ~ObjectProxy();

  const ObjectPath& object_path() const { return path_; }
  const std::string& service_name() const { return service_name_; }
  Bus* bus() const { return bus_; }

  // Sends the call and waits for the reply, which may be an error reply. Null when none can come
  // (not connected, or a call that can't be sent).
  std::unique_ptr<Response> CallMethodAndBlock(const MethodCall& call, int timeout_ms);
  // Sends the call; the callback gets the reply, a time-out as the error reply that the bus library
  // makes of it.
  void CallMethod(const MethodCall& call, int timeout_ms, const ResponseCallback& callback);
  // Calls back for each such signal of the object, whoever owns the service name at that time, and
  // for no other sender's.
  void ConnectToSignal(const std::string& interface, const std::string& signal,
                       const SignalCallback& on_signal, const OnConnectedCallback& on_connected);

 private:
  Bus* const bus_;
  const std::string service_name_;
  const ObjectPath path_;
};

}  // namespace dbus
