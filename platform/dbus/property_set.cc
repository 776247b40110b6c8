#include "dbus/property_set.h"

#include <systemd/sd-bus.h>

#include <utility>

namespace dbus {

PropertySet::PropertySet(ObjectProxy* object_proxy, std::string interface_name,
                         const ChangedCallback& on_changed)
    : object_proxy_(object_proxy),
      interface_name_(std::move(interface_name)),
      on_changed_(on_changed) {}

void PropertySet::RegisterProperty(const std::string& name, PropertyBase* property) {
  properties_[name] = property;
}

std::vector<std::string> PropertySet::ReadValues(MessageReader* reader) {
  std::vector<std::string> stored;
  if (!reader->EnterContainer('a', "{sv}")) return stored;
  while (reader->EnterContainer('e', "sv")) {
    std::string name;
    if (reader->PopString(&name) && ReadValue(name, reader)) stored.push_back(name);
    reader->ExitContainer();
  }
  reader->ExitContainer();
  return stored;
}

void PropertySet::ApplyChanges(MessageReader* reader) {
  const std::vector<std::string> changed = ReadValues(reader);
  for (const std::string& name : ReadNames(reader)) Request(name);
  RunChanged(changed);
}

std::set<std::string> PropertySet::ReadNames(MessageReader* reader) const {
  std::set<std::string> names;
  if (!reader->EnterContainer('a', "s")) return names;
  std::string name;
  while (reader->PopString(&name))
    if (properties_.contains(name)) names.insert(name);
  reader->ExitContainer();
  return names;
}

bool PropertySet::ReadValue(const std::string& name, MessageReader* reader) {
  const auto found = properties_.find(name);
  if (found == properties_.end()) return false;
  // Does not enter a variant of another type.
  if (!reader->EnterContainer('v', found->second->GetSignature())) return false;
  const bool stored = found->second->ReadFrom(reader);
  reader->ExitContainer();
  return stored;
}

void PropertySet::Request(const std::string& name) {
  const auto [fetch, is_new] = fetches_.try_emplace(name, Fetch::kPending);
  if (!is_new) {
    // The pending reply may contain the value before this change.
    fetch->second = Fetch::kRepeat;
    return;
  }
  MethodCall call(*object_proxy_, "org.freedesktop.DBus.Properties", "Get");
  MessageWriter writer(&call);
  writer.AppendString(interface_name_);
  writer.AppendString(name);
  // No timeout: it could pass while a blocking call keeps us from reading the reply, and the
  // request is not retried.
  object_proxy_->CallMethod(
      call, ObjectProxy::kTimeoutInfinite,
      base::Bind(&PropertySet::OnFetched, weak_ptr_factory_.GetWeakPtr(), name));
}

void PropertySet::OnFetched(const std::string& name, const Response& response) {
  // A property may contain a secret: sd-bus wipes a sensitive message before it frees it.
  sd_bus_message_sensitive(response.raw());
  if (fetches_.extract(name).mapped() == Fetch::kRepeat) Request(name);
  MessageReader reader(&response);
  if (!response.IsError() && ReadValue(name, &reader)) RunChanged({name});
}

void PropertySet::RunChanged(const std::vector<std::string>& names) {
  const auto alive = weak_ptr_factory_.GetWeakPtr();
  const ChangedCallback on_changed = on_changed_;
  if (on_changed.is_null()) return;
  for (const std::string& name : names) {
    if (!alive.get()) return;
    on_changed.Run(name);
  }
}

}  // namespace dbus
