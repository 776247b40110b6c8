// The connection to a message bus, on sd-bus, attached to the current message loop.
//
// The bus must not outlive the loop that was current when it connected. It owns the object
// proxies and object managers that it hands out: pointers to them are valid as long as the bus.
//
// A blocking call reads its connection until the reply arrives, and sd-bus keeps in memory whatever
// is read before it. A service that makes blocking calls therefore takes its own callers' messages
// on a second connection (`SeparateService`): while a call blocks, those stay with the bus. Outside
// of a call, sd-bus reads one message and dispatches it before it reads the next.
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
// The connection; sends what is waiting and closes with the pointer.
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

  // False from when a connection is known to be lost.
  [[nodiscard]] bool IsConnected() const;
  // Runs once, when the first of the connections is lost.
  void SetDisconnectedCallback(const base::Callback<void()>& callback);

  // The one proxy, or object manager, of a remote object that stays; made at the first request, and
  // kept.
  ObjectProxy* GetObjectProxy(const std::string& service_name, const ObjectPath& path);
  ObjectManager* GetObjectManager(const std::string& service_name, const ObjectPath& path);

  // Owned by the bus. For the platform's own libraries: the connection for remote objects, their
  // signals and the calls of their methods; and the one for exports, which may be the same.
  [[nodiscard]] sd_bus* connection() const { return connection_.get(); }
  [[nodiscard]] sd_bus* service_connection() const {
    return service_connection_ ? service_connection_.get() : connection_.get();
  }

 private:
  explicit Bus(Connection connection);
  // A match of the end of the connection.
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
