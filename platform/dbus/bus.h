// The connection to a message bus, on sd-bus, attached to the current message loop.
//
// The bus must not outlive the loop that was current when it connected. It owns the object
// proxies and object managers that it hands out: pointers to them are valid as long as the bus.
#pragma once

#include <systemd/sd-bus.h>

#include <map>
#include <memory>
#include <string>
#include <utility>

#include "base/callback.h"
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
  // Connects to the system bus (DBUS_SYSTEM_BUS_ADDRESS, or the standard address), which lets no
  // file descriptors through to us. On failure returns null and says why in `why`.
  static scoped_refptr<Bus> ConnectToSystemBus(std::string* why);

  ~Bus();
  Bus(const Bus&) = delete;
  Bus& operator=(const Bus&) = delete;

  // Takes the service name, not queueing behind another owner. On failure returns false and says
  // why in `why`.
  bool RequestOwnership(const std::string& service_name, std::string* why);

  // False from when the connection is known to be lost.
  bool IsConnected() const;
  // Runs once when the connection is lost.
  void SetDisconnectedCallback(const base::Callback<void()>& callback);

  // The one proxy, or object manager, of a remote object that stays; made at the first request, and
  // kept.
  ObjectProxy* GetObjectProxy(const std::string& service_name, const ObjectPath& path);
  ObjectManager* GetObjectManager(const std::string& service_name, const ObjectPath& path);

  // Owned by the bus. For the platform's own libraries.
  sd_bus* connection() const { return connection_.get(); }

 private:
  explicit Bus(Connection connection);
  static int OnDisconnected(sd_bus_message* message, void* bus, sd_bus_error* error);

  using Key = std::pair<std::string, ObjectPath>;

  const Connection connection_;
  Slot disconnected_match_;
  base::Callback<void()> disconnected_callback_;
  std::map<Key, std::unique_ptr<ObjectProxy>> object_proxies_;
  std::map<Key, std::unique_ptr<ObjectManager>> object_managers_;
};

}  // namespace dbus
