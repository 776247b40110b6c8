// Follows the objects that a remote service exports under one org.freedesktop.DBus.ObjectManager.
//
// Must not outlive its connection; all callbacks run from the message loop. Objects are known from
// when the present owner of the service name announces them until it removes them or loses the
// name; what any other connection says about them is ignored.
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
  // Whoever wants to know of the objects with an interface. Its callbacks may call the remote
  // service and may register and unregister interfaces. However many objects come at once, each is
  // told of in a turn of the loop of its own, since a callback may block: one that goes before its
  // turn is not told of, and changes of properties may be told before it.
  class Interface {
   public:
    virtual ~Interface() = default;
    // Makes the set that keeps the properties of the interface on a new object; never null.
    // `object_proxy` outlives it.
    virtual std::unique_ptr<PropertySet> CreateProperties(ObjectProxy* object_proxy,
                                                          const ObjectPath& path,
                                                          const std::string& interface_name) = 0;
    // The interface appeared on the object; its properties are filled in.
    virtual void ObjectAdded(const ObjectPath& path, const std::string& interface_name) = 0;
    // The interface is gone from the object; its property set lives until this returns.
    virtual void ObjectRemoved(const ObjectPath& path, const std::string& interface_name) = 0;
  };

  ObjectManager(sd_bus* connection, std::string service_name, ObjectPath path);
  ~ObjectManager();
  ObjectManager(const ObjectManager&) = delete;
  ObjectManager& operator=(const ObjectManager&) = delete;

  // `interface` (not owned) is told of the objects from now on, and of those already there as soon
  // as the service has listed them. Precondition: none is registered under the name.
  void RegisterInterface(const std::string& name, Interface* interface);
  // Drops the objects with the interface; nothing is called for the name any more.
  void UnregisterInterface(const std::string& name);

  // Null when no such object is known. Valid until the object is removed.
  [[nodiscard]] PropertySet* GetProperties(const ObjectPath& path,
                                           const std::string& interface_name) const;

 private:
  // An interface on an object.
  using Key = std::pair<ObjectPath, std::string>;
  // What is there for it; goes with it, so that nothing is left of objects that come and go.
  struct Object {
    std::unique_ptr<ObjectProxy> proxy;
    std::unique_ptr<PropertySet> properties;
    uint64_t place = 0;
  };

  // Hands the signals of the present owner to `handler`, a method of this.
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
  // Stores the a{sa{sv}} that comes next; what was not known before waits for its announcement.
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
  // Those not announced yet, by their place in the order of coming.
  std::map<uint64_t, Key> waiting_;
  uint64_t last_place_ = 0;
  std::vector<Slot> matches_;
  NameOwner name_owner_;
  Slot pending_list_;
  base::WeakPtrFactory<ObjectManager> weak_ptr_factory_{this};
};

}  // namespace dbus
