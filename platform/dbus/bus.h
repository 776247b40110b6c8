// The connection to a message bus, on sd-bus, attached to the current message loop.
//
// The bus must not outlive the loop that was current when it connected. It owns the object
// proxies and object managers that it returns: pointers to them are valid as long as the bus.
//
// A blocking call reads its connection until the reply arrives, and sd-bus queues in memory what
// arrives before it. A service that makes blocking calls therefore receives its callers' messages
// on a second connection (`SeparateService`), where they stay with the bus during such a call.
// Outside of a call, sd-bus reads one message and dispatches it before it reads the next.
#pragma once

#include <systemd/sd-bus.h>

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/callback.h"
#include "base/error.h"
#include "base/ref_counted.h"
#include "dbus/object_manager.h"
#include "dbus/object_proxy.h"
#include "dbus/types.h"

namespace dbus {

struct ConnectionDeleter {
  void operator()(sd_bus* connection) const;
};
// Flushed and closed with the pointer.
using Connection = std::unique_ptr<sd_bus, ConnectionDeleter>;

class Bus {
 public:
  // Connects to the system bus (DBUS_SYSTEM_BUS_ADDRESS, or the standard address), without file
  // descriptor passing. Null, with an entry in `error`, on failure.
  [[nodiscard]] static scoped_refptr<Bus> ConnectToSystemBus(base::ErrorPtr* error);

  ~Bus();
  Bus(const Bus&) = delete;
  Bus& operator=(const Bus&) = delete;

  // Opens a second connection for the service name and the exported objects; everything else stays
  // on the first. Precondition: nothing is exported yet. False, with an entry in `error`, on
  // failure.
  [[nodiscard]] bool SeparateService(base::ErrorPtr* error);

  // Acquires the service name without queueing behind another owner. False, with an entry in
  // `error`, on failure.
  [[nodiscard]] bool RequestOwnership(const std::string& service_name, base::ErrorPtr* error) const;

  // False once a connection is known to be lost.
  [[nodiscard]] bool IsConnected() const;
  // True while sent messages are in memory because the bus does not read them.
  [[nodiscard]] bool HasUnsentMessages() const;
  // Runs once, when the first of the connections is lost.
  void SetDisconnectedCallback(const base::Callback<void()>& callback);

  // The proxy or object manager of a remote object, created on first use: one per object.
  ObjectProxy* GetObjectProxy(const std::string& service_name, const ObjectPath& path);
  ObjectManager* GetObjectManager(const std::string& service_name, const ObjectPath& path);

  // Owned by the bus, for the platform's libraries: the connection for remote objects, and the one
  // for exports, which is the same until `SeparateService`.
  [[nodiscard]] sd_bus* connection() const { return connection_.get(); }
  [[nodiscard]] sd_bus* service_connection() const {
    return service_connection_ ? service_connection_.get() : connection_.get();
  }

 private:
  explicit Bus(Connection connection);
  // Runs `OnDisconnected` when the connection is lost.
  Slot WatchEnd(sd_bus* connection);
  static int OnDisconnected(sd_bus_message* message, void* bus, sd_bus_error* error);

  using Key = std::pair<std::string, ObjectPath>;

  const Connection connection_;
  // Null until the service is separated.
  Connection service_connection_;
  std::vector<Slot> end_matches_;
  base::Callback<void()> disconnected_callback_;
  std::map<Key, std::unique_ptr<ObjectProxy>> object_proxies_;
  std::map<Key, std::unique_ptr<ObjectManager>> object_managers_;
};

}  // namespace dbus
