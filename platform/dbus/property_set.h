// The cached properties of one interface of a remote object.
//
// The object manager owns a set, fills it and keeps it up to date; reading it makes no D-Bus call.
// Message loop's thread only.
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

// The cached value of one property.
class PropertyBase {
 public:
  virtual ~PropertyBase() = default;

  // The D-Bus signature of the value.
  [[nodiscard]] virtual std::string GetSignature() const = 0;
  // Reads the next value, which has that signature. False, keeping the old value, if it can't be
  // read.
  [[nodiscard]] virtual bool ReadFrom(MessageReader* reader) = 0;
};

class PropertySet {
 public:
  using ChangedCallback = base::Callback<void(const std::string& property_name)>;

  // The proxy outlives the set. `on_changed` runs for each property that the remote object changed,
  // after the new value is stored; it may destroy the set.
  PropertySet(ObjectProxy* object_proxy, std::string interface_name,
              const ChangedCallback& on_changed);
  virtual ~PropertySet() = default;
  PropertySet(const PropertySet&) = delete;
  PropertySet& operator=(const PropertySet&) = delete;

  // Registers a property, which lives as long as the set, under its remote name.
  void RegisterProperty(const std::string& name, PropertyBase* property);

  [[nodiscard]] ObjectProxy* object_proxy() const { return object_proxy_; }
  [[nodiscard]] const std::string& interface_name() const { return interface_name_; }

  // Stores the values of the next a{sv}. Unregistered names and values of a wrong type are skipped.
  // Returns the names of the stored properties.
  std::vector<std::string> ReadValues(MessageReader* reader);
  // Applies the next a{sv} and "as", of a PropertiesChanged signal: stores the values, runs the
  // callback for each, and requests from the object the values of the properties that are only
  // named. At most one request per property is pending, however often it is named.
  void ApplyChanges(MessageReader* reader);

 private:
  enum class Fetch { kPending, kRepeat };

  // The registered names in the next "as".
  std::set<std::string> ReadNames(MessageReader* reader) const;
  [[nodiscard]] bool ReadValue(const std::string& name, MessageReader* reader);
  void Request(const std::string& name);
  void OnFetched(const std::string& name, const Response& response);
  void RunChanged(const std::vector<std::string>& names);

  ObjectProxy* const object_proxy_;
  const std::string interface_name_;
  const ChangedCallback on_changed_;
  std::map<std::string, PropertyBase*> properties_;
  // The pending requests; `kRepeat` if the property has changed since.
  std::map<std::string, Fetch> fetches_;
  base::WeakPtrFactory<PropertySet> weak_ptr_factory_{this};
};

}  // namespace dbus
