// A remote object: calls its methods and listens to its signals.
//
// Must not outlive its connection. All callbacks run from the message loop, and none after the
// proxy's end.
#pragma once

#include <systemd/sd-bus.h>

#include <limits>
#include <list>
#include <memory>
#include <string>

#include "base/callback.h"
#include "base/weak_ptr.h"
#include "dbus/message.h"
#include "dbus/name_owner.h"
#include "dbus/slot.h"
#include "dbus/types.h"

namespace dbus {

class ObjectProxy;

// A call to be sent, addressed to the proxy's object.
class MethodCall : public Message {
 public:
  MethodCall(const ObjectProxy& proxy, const std::string& interface, const std::string& method);
};

class ObjectProxy {
 public:
  // All timeouts are in milliseconds.
  static constexpr int kDefaultTimeout = 25'000;
  // Selects the default.
  static constexpr int kTimeoutUseDefault = -1;
  // Waits until the reply arrives or the service leaves the bus.
  static constexpr int kTimeoutInfinite = std::numeric_limits<int>::max();

  using SignalCallback = base::Callback<void(const Signal&)>;
  using OnConnectedCallback =
      base::Callback<void(const std::string& interface, const std::string& signal, bool success)>;
  // The response may be an error reply.
  using ResponseCallback = base::Callback<void(const Response&)>;

  ObjectProxy(sd_bus* connection, std::string service_name, ObjectPath path);
  ~ObjectProxy();
  ObjectProxy(const ObjectProxy&) = delete;
  ObjectProxy& operator=(const ObjectProxy&) = delete;

  [[nodiscard]] const ObjectPath& object_path() const { return path_; }
  [[nodiscard]] const std::string& service_name() const { return service_name_; }
  [[nodiscard]] sd_bus* connection() const { return connection_; }

  // Sends the call and blocks until the reply, which may be an error reply; sd-bus turns a timeout
  // into one. A reply that has arrived counts, however late it is read. Null if the connection is
  // lost.
  [[nodiscard]] std::unique_ptr<Response> CallMethodAndBlock(const MethodCall& call,
                                                             int timeout_ms);
  // Sends the call. The callback (may be null) gets the reply as above, or an error reply if the
  // connection is lost. Even a reply that arrived in time counts as late if the loop is blocked
  // past the timeout: sd-bus checks timeouts before it reads.
  void CallMethod(const MethodCall& call, int timeout_ms, const ResponseCallback& callback);
  // Sends the call with the flag that no reply is expected. False if the connection is lost.
  [[nodiscard]] bool SendOneWay(const MethodCall& call);
  // Runs `callback` for each error reply to a one-way call: one that dbus-daemon did not deliver.
  // A service replies to none, and dbus-broker neither.
  void SetOneWayErrorCallback(const ResponseCallback& callback);
  // Runs `on_signal` for each such signal of the object that the current owner of the service name
  // sends, and for no other sender's. `on_connected` reports whether the bus accepted the match.
  void ConnectToSignal(const std::string& interface, const std::string& signal,
                       const SignalCallback& on_signal, const OnConnectedCallback& on_connected);

 private:
  struct PendingCall;
  struct SignalConnection;

  static int OnReply(sd_bus_message* raw, void* pending, sd_bus_error* error);
  static int OnUnclaimed(sd_bus_message* raw, void* proxy, sd_bus_error* error);
  static int OnSignal(sd_bus_message* raw, void* connection, sd_bus_error* error);
  static int OnMatchInstalled(sd_bus_message* raw, void* connection, sd_bus_error* error);

  sd_bus* const connection_;
  const std::string service_name_;
  const ObjectPath path_;
  // Null until the first signal is connected.
  std::unique_ptr<NameOwner> name_owner_;
  std::list<std::unique_ptr<PendingCall>> pending_calls_;
  ResponseCallback on_one_way_error_;
  // Null without a callback for errors.
  Slot unclaimed_filter_;
  std::list<std::unique_ptr<SignalConnection>> connections_;
  base::WeakPtrFactory<ObjectProxy> weak_ptr_factory_{this};
};

}  // namespace dbus
