#include "dbus/object_manager.h"

#include <cstdint>
#include <utility>

#include "base/logging.h"
#include "base/message_loop.h"

namespace dbus {

namespace {
constexpr char kObjectManager[] = "org.freedesktop.DBus.ObjectManager";

std::string Quoted(const std::string& key, const std::string& value) {
  return "," + key + "='" + value + "'";
}

}  // namespace

ObjectManager::ObjectManager(sd_bus* connection, std::string service_name, ObjectPath path)
    : connection_(connection),
      service_name_(std::move(service_name)),
      path_(std::move(path)),
      name_owner_(connection, service_name_,
                  base::Bind(&ObjectManager::OnOwnerChanged, base::Unretained(this))) {
  // The owner is not known before the loop runs, so that these are sent before the objects are
  // listed.
  const std::string signals = Quoted("path", path_.value()) + Quoted("interface", kObjectManager);
  Listen<&ObjectManager::OnInterfacesAdded>(signals + Quoted("member", "InterfacesAdded"));
  Listen<&ObjectManager::OnInterfacesRemoved>(signals + Quoted("member", "InterfacesRemoved"));
  Listen<&ObjectManager::OnPropertiesChanged>(
      Quoted("path_namespace", path_.value()) +
      Quoted("interface", "org.freedesktop.DBus.Properties") +
      Quoted("member", "PropertiesChanged"));
}

ObjectManager::~ObjectManager() = default;

void ObjectManager::RegisterInterface(const std::string& name, Interface* interface) {
  CHECK(!interfaces_.contains(name)) << "Interface " << name << " is registered already";
  interfaces_[name] = interface;
  // Existing objects with this interface have been ignored until now.
  if (!name_owner_.owner().empty()) List();
}

void ObjectManager::UnregisterInterface(const std::string& name) {
  interfaces_.erase(name);
  std::erase_if(objects_, [&name](const auto& object) { return object.first.second == name; });
  std::erase_if(unannounced_, [&name](const auto& entry) { return entry.second.second == name; });
}

PropertySet* ObjectManager::GetProperties(const ObjectPath& path,
                                          const std::string& interface_name) const {
  const auto found = objects_.find({path, interface_name});
  return found == objects_.end() ? nullptr : found->second.properties.get();
}

template <auto handler>
void ObjectManager::Listen(const std::string& rule) {
  const std::string whole = "type='signal'" + Quoted("sender", service_name_) + rule;
  matches_.push_back(AddMatch(connection_, whole, &ObjectManager::OnSignal<handler>, this));
}

template <auto handler>
int ObjectManager::OnSignal(sd_bus_message* raw, void* self, sd_bus_error* /*error*/) {
  auto* const manager = static_cast<ObjectManager*>(self);
  // Properties may contain secrets: sd-bus wipes a sensitive message before it frees it.
  sd_bus_message_sensitive(raw);
  const Message message(Reference(raw));
  if (manager->name_owner_.Sent(message)) (manager->*handler)(message);
  return 0;
}

void ObjectManager::OnInterfacesAdded(const Message& message) {
  MessageReader reader(&message);
  ObjectPath path;
  if (!message.HasSignature("oa{sa{sv}}") || !reader.PopObjectPath(&path)) return;
  const bool was_announcing = !unannounced_.empty();
  ReadInterfaces(path, &reader);
  if (!was_announcing) AnnounceNext();
}

void ObjectManager::OnInterfacesRemoved(const Message& message) {
  MessageReader reader(&message);
  Key key;
  if (!message.HasSignature("oas") || !reader.PopObjectPath(&key.first) ||
      !reader.EnterContainer('a', "s"))
    return;
  while (reader.PopString(&key.second)) Remove(key);
}

void ObjectManager::OnPropertiesChanged(const Message& message) const {
  MessageReader reader(&message);
  std::string interface_name;
  if (!message.HasSignature("sa{sv}as") || !reader.PopString(&interface_name)) return;
  PropertySet* const properties = GetProperties(ObjectPath(message.GetPath()), interface_name);
  if (properties) properties->ApplyChanges(&reader);
}

void ObjectManager::OnOwnerChanged() {
  // Ignores a late reply of the previous owner.
  pending_list_.reset();
  RemoveAll();
  if (!name_owner_.owner().empty()) List();
}

void ObjectManager::List() {
  sd_bus_message* raw = nullptr;
  const int result =
      sd_bus_message_new_method_call(connection_, &raw, name_owner_.owner().c_str(),
                                     path_.value().c_str(), kObjectManager, "GetManagedObjects");
  CHECK(result >= 0) << "Unable to make a call of GetManagedObjects";
  const MessagePtr call(raw);
  // No timeout: the call is not retried, and after a long blocking call elsewhere sd-bus would
  // report a timeout although the reply has arrived. The call fails when the owner disconnects.
  constexpr uint64_t kNoTimeout = UINT64_MAX;
  sd_bus_slot* slot = nullptr;
  sd_bus_call_async(connection_, &slot, call.get(), &ObjectManager::OnListed, this, kNoTimeout);
  pending_list_.reset(slot);
}

int ObjectManager::OnListed(sd_bus_message* raw, void* self, sd_bus_error* /*error*/) {
  auto* const manager = static_cast<ObjectManager*>(self);
  sd_bus_message_sensitive(raw);
  const Response response(Reference(raw));
  if (response.IsError()) {
    manager->LogFailure(response.GetErrorName() + ": " + response.GetErrorMessage());
  } else {
    manager->ReadList(response);
  }
  return 0;
}

void ObjectManager::LogFailure(const std::string& error) const {
  LOG(WARNING) << "Failed to list the objects of " << service_name_ << ": " << error;
}

void ObjectManager::ReadList(const Message& list) {
  MessageReader reader(&list);
  if (!list.HasSignature("a{oa{sa{sv}}}") || !reader.EnterContainer('a', "{oa{sa{sv}}}"))
    return LogFailure("The reply is no list of objects");
  const bool was_announcing = !unannounced_.empty();
  ObjectPath path;
  while (reader.EnterContainer('e', "oa{sa{sv}}") && reader.PopObjectPath(&path)) {
    ReadInterfaces(path, &reader);
    reader.ExitContainer();
  }
  if (!reader.ExitContainer()) LogFailure("Not all of the reply can be read");
  if (!was_announcing) AnnounceNext();
}

void ObjectManager::ReadInterfaces(const ObjectPath& path, MessageReader* reader) {
  if (!reader->EnterContainer('a', "{sa{sv}}")) return;
  Key key{path, ""};
  while (reader->EnterContainer('e', "sa{sv}") && reader->PopString(&key.second)) {
    ReadObject(key, reader);
    reader->ExitContainer();
  }
  reader->ExitContainer();
}

void ObjectManager::ReadObject(const Key& key, MessageReader* reader) {
  const auto interface = interfaces_.find(key.second);
  if (interface == interfaces_.end()) return;
  const auto [object, is_new] = objects_.try_emplace(key);
  auto& [proxy, properties, arrival] = object->second;
  if (is_new) {
    proxy = std::make_unique<ObjectProxy>(connection_, service_name_, key.first);
    properties = interface->second->CreateProperties(proxy.get(), key.first, key.second);
    arrival = ++last_arrival_;
    unannounced_[arrival] = key;
  }
  properties->ReadValues(reader);
}

void ObjectManager::AnnounceNext() {
  if (unannounced_.empty()) return;
  const Key key = unannounced_.extract(unannounced_.begin()).mapped();
  interfaces_.at(key.second)->ObjectAdded(key.first, key.second);
  if (unannounced_.empty()) return;
  base::MessageLoop::Current()->PostTask(
      base::Bind(&ObjectManager::AnnounceNext, weak_ptr_factory_.GetWeakPtr()));
}

void ObjectManager::Remove(const Key& key) {
  // Destroyed after the callback.
  const auto removed = objects_.extract(key);
  if (removed.empty() || unannounced_.erase(removed.mapped().arrival) > 0) return;
  const auto interface = interfaces_.find(key.second);
  if (interface != interfaces_.end()) interface->second->ObjectRemoved(key.first, key.second);
}

void ObjectManager::RemoveAll() {
  while (!objects_.empty()) Remove(Key(objects_.begin()->first));
}

}  // namespace dbus
