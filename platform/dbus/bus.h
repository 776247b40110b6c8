// The connection to a message bus, on sd-bus, attached to the current message loop.
//
// The bus owns its object proxies and object managers: pointers to them are valid as long as the bus.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>

#include "base/callback.h"
#include "base/ref_counted.h"
#include "dbus/types.h"

struct sd_bus;

namespace dbus {

class ObjectManager;
class ObjectProxy;

class Bus {
 public:
  // Connects to the system bus (DBUS_SYSTEM_BUS_ADDRESS, or the standard address). On failure returns
  // null and says why in `why`.
  static scoped_refptr<Bus> ConnectToSystemBus(std::string* why);

  ~Bus();
  Bus(const Bus&) = delete;
  Bus& operator=(const Bus&) = delete;

  // Takes the service name, not queueing behind another owner. On failure returns false and says why
  // in `why`.
  bool RequestOwnership(const std::string& service_name, std::string* why);

  // Runs once when the connection is lost.
  void SetDisconnectedCallback(const base::Callback<void()>& callback);

  // The one proxy, or object manager, of a remote object; made at the first request.
  ObjectProxy* GetObjectProxy(const std::string& service_name, const ObjectPath& path);
  ObjectManager* GetObjectManager(const std::string& service_name, const ObjectPath& path);

  // Owned by the bus. For the platform's own libraries.
  sd_bus* connection() const { return connection_; }

 private:
  explicit Bus(sd_bus* connection);

  using Key = std::pair<std::string, ObjectPath>;

  sd_bus* const connection_;
  base::Callback<void()> disconnected_callback_;
  std::map<Key, std::unique_ptr<ObjectProxy>> object_proxies_;
  std::map<Key, std::unique_ptr<ObjectManager>> object_managers_;
};

}  // namespace dbus
