// The cached properties of one interface of a remote object.
//
// The object manager fills a set in and keeps it up to date; whoever reads it asks no one. A set
// lives on the message loop's thread and is owned by the object manager that it was made for.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "base/callback.h"
#include "base/weak_ptr.h"
#include "dbus/message.h"
#include "dbus/object_proxy.h"

namespace dbus {

// One property: a place for its value.
class PropertyBase {
 public:
  virtual ~PropertyBase() = default;

  // The D-Bus signature of the value.
  [[nodiscard]] virtual std::string GetSignature() const = 0;
  // Takes the value that comes next, which is of that signature. Returns false, keeping the old
  // value, when it can't be read.
  [[nodiscard]] virtual bool ReadFrom(MessageReader* reader) = 0;
};

class PropertySet {
 public:
  using ChangedCallback = base::Callback<void(const std::string& property_name)>;

  // The proxy outlives the set. `on_changed` runs for each property that its owner has changed,
  // after its value is stored; it may destroy the set.
  PropertySet(ObjectProxy* object_proxy, std::string interface_name,
              const ChangedCallback& on_changed);
  virtual ~PropertySet() = default;
  PropertySet(const PropertySet&) = delete;
  PropertySet& operator=(const PropertySet&) = delete;

  // Gives a property its remote name. The property lives as long as the set.
  void RegisterProperty(const std::string& name, PropertyBase* property);

  [[nodiscard]] ObjectProxy* object_proxy() const { return object_proxy_; }
  [[nodiscard]] const std::string& interface_name() const { return interface_name_; }

  // Stores the values of the a{sv} that comes next. Names that are not registered and values of a
  // wrong type are passed over. Returns the names of the properties stored.
  std::vector<std::string> ReadValues(MessageReader* reader);
  // Takes the a{sv} and the "as" of a PropertiesChanged signal that come next: stores the values,
  // then runs the callback for each, and asks the object for those that it only named: for each
  // once at a time, however often it is named.
  void ApplyChanges(MessageReader* reader);

 private:
  enum class Fetches { kOnce, kOnceMore };

  // Takes the "as" that comes next; returns those that are registered.
  std::set<std::string> ReadNames(MessageReader* reader) const;
  [[nodiscard]] bool ReadValue(const std::string& name, MessageReader* reader);
  void Fetch(const std::string& name);
  void OnFetched(const std::string& name, const Response& response);
  void RunChanged(const std::vector<std::string>& names);

  ObjectProxy* const object_proxy_;
  const std::string interface_name_;
  const ChangedCallback on_changed_;
  std::map<std::string, PropertyBase*> properties_;
  // What is being asked for.
  std::map<std::string, Fetches> fetches_;
  base::WeakPtrFactory<PropertySet> weak_ptr_factory_{this};
};

}  // namespace dbus
