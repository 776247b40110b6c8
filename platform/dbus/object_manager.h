// Follows the objects that a remote service exports under one org.freedesktop.DBus.ObjectManager.
//
// Must not outlive its connection. All callbacks run from the message loop. An object is known from
// its announcement by the current owner of the service name until that owner removes it or loses
// the name. Signals of other connections are ignored.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/weak_ptr.h"
#include "dbus/message.h"
#include "dbus/name_owner.h"
#include "dbus/object_proxy.h"
#include "dbus/property_set.h"
#include "dbus/slot.h"
#include "dbus/types.h"

namespace dbus {

class ObjectManager {
 public:
  // Receives the objects with one interface. The callbacks may call the remote service, and may
  // register and unregister interfaces. Since a callback may block, each object is announced in an
  // iteration of the event loop of its own. An object removed earlier is never announced. Callbacks
  // for changed properties of an object can run before its announcement.
  class Interface {
   public:
    virtual ~Interface() = default;
    // Creates the properties of the interface on a new object; never null. `object_proxy` outlives
    // them.
    virtual std::unique_ptr<PropertySet> CreateProperties(ObjectProxy* object_proxy,
                                                          const ObjectPath& path,
                                                          const std::string& interface_name) = 0;
    // The object has the interface; its properties are filled in.
    virtual void ObjectAdded(const ObjectPath& path, const std::string& interface_name) = 0;
    // The object no longer has the interface; its property set lives until this returns.
    virtual void ObjectRemoved(const ObjectPath& path, const std::string& interface_name) = 0;
  };

  ObjectManager(sd_bus* connection, std::string service_name, ObjectPath path);
  ~ObjectManager();
  ObjectManager(const ObjectManager&) = delete;
  ObjectManager& operator=(const ObjectManager&) = delete;

  // Announces objects to `interface` (not owned) from now on, the existing ones once the service
  // has listed them. Precondition: no interface is registered under the name.
  void RegisterInterface(const std::string& name, Interface* interface);
  // Drops the objects with the interface, without callbacks.
  void UnregisterInterface(const std::string& name);

  // Null if no such object is known. Valid until the object is removed.
  [[nodiscard]] PropertySet* GetProperties(const ObjectPath& path,
                                           const std::string& interface_name) const;

 private:
  // An interface on an object.
  using Key = std::pair<ObjectPath, std::string>;
  // Its members are destroyed with it, so that a removed object leaves nothing behind.
  struct Object {
    std::unique_ptr<ObjectProxy> proxy;
    std::unique_ptr<PropertySet> properties;
    uint64_t arrival = 0;
  };

  // Passes the current owner's signals to `handler`, a method of this class.
  template <auto handler>
  static int OnSignal(sd_bus_message* raw, void* self, sd_bus_error* error);
  static int OnListed(sd_bus_message* raw, void* self, sd_bus_error* error);

  template <auto handler>
  void Listen(const std::string& rule);
  void OnInterfacesAdded(const Message& message);
  void OnInterfacesRemoved(const Message& message);
  void OnPropertiesChanged(const Message& message) const;
  void OnOwnerChanged();

  void List();
  void LogFailure(const std::string& error) const;
  void ReadList(const Message& list);
  // Stores the next a{sa{sv}}, and queues new objects for announcement.
  void ReadInterfaces(const ObjectPath& path, MessageReader* reader);
  void ReadObject(const Key& key, MessageReader* reader);
  void AnnounceNext();
  void Remove(const Key& key);
  void RemoveAll();

  sd_bus* const connection_;
  const std::string service_name_;
  const ObjectPath path_;
  std::map<std::string, Interface*> interfaces_;
  std::map<Key, Object> objects_;
  // Objects that are not announced yet, in the order of arrival.
  std::map<uint64_t, Key> unannounced_;
  uint64_t last_arrival_ = 0;
  std::vector<Slot> matches_;
  NameOwner name_owner_;
  Slot pending_list_;
  base::WeakPtrFactory<ObjectManager> weak_ptr_factory_{this};
};

}  // namespace dbus
