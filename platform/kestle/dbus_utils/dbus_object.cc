#include "kestle/dbus_utils/dbus_object.h"

#include <systemd/sd-bus.h>

#include <cstring>
#include <utility>

namespace kestle::dbus_utils {

namespace {

sd_bus_vtable StartEntry() {
  sd_bus_vtable entry{};
  entry.type = _SD_BUS_VTABLE_START;
  entry.x.start.element_size = sizeof(sd_bus_vtable);
  entry.x.start.features = _SD_BUS_VTABLE_PARAM_NAMES;
  entry.x.start.vtable_format_reference = &sd_bus_object_vtable_format;
  return entry;
}

sd_bus_vtable EndEntry() {
  sd_bus_vtable entry{};
  entry.type = _SD_BUS_VTABLE_END;
  return entry;
}

// The bus policy decides who may call: sd-bus must not require privileges of the caller as well.
sd_bus_vtable MethodEntry(const DBusInterface::Method& method, sd_bus_message_handler_t handler) {
  sd_bus_vtable entry{};
  entry.type = _SD_BUS_VTABLE_METHOD;
  entry.flags = SD_BUS_VTABLE_UNPRIVILEGED;
  entry.x.method.member = method.name.c_str();
  entry.x.method.signature = method.signature.c_str();
  entry.x.method.result = "";
  entry.x.method.handler = handler;
  entry.x.method.names = method.argument_names.c_str();
  return entry;
}

// Sends nothing if the caller wants no reply.
int ReplyWithError(sd_bus_message* call, const Error* error) {
  const bool named = error && sd_bus_interface_name_is_valid(error->GetCode().c_str()) > 0;
  const sd_bus_error reply = {named ? error->GetCode().c_str() : kFailed,
                              error ? error->GetMessage().c_str() : "The call failed", 0};
  return sd_bus_reply_method_error(call, &reply);
}

}  // namespace

void DBusInterface::AddMethod(const std::string& name, const std::string& signature,
                              const std::vector<std::string>& argument_names,
                              const Handler& handler) {
  std::string joined_names;
  for (const std::string& argument_name : argument_names) joined_names += argument_name + '\0';
  methods_.push_back({name, signature, joined_names, handler});
}

// Points into the methods of an interface, which no longer changes.
struct DBusObject::Vtable {
  std::vector<sd_bus_vtable> entries;
};

DBusObject::DBusObject(ExportedObjectManager* object_manager, const scoped_refptr<dbus::Bus>& bus,
                       const dbus::ObjectPath& path)
    : object_manager_(object_manager), bus_(bus), path_(path) {}

DBusObject::~DBusObject() {
  if (registered_ && object_manager_) object_manager_->AnnounceRemoved(path_);
}

DBusInterface* DBusObject::AddOrGetInterface(const std::string& name) {
  std::unique_ptr<DBusInterface>& interface = interfaces_[name];
  if (!interface) interface = std::make_unique<DBusInterface>();
  return interface.get();
}

void DBusObject::RegisterAsync(const AsyncEventSequencer::CompletionAction& completion) {
  CHECK(!registered_);
  registered_ = Export();
  if (!registered_) exports_.clear();
  if (registered_ && object_manager_) object_manager_->AnnounceAdded(path_);
  completion.Run(registered_);
}

bool DBusObject::Export() {
  // Gets calls before the vtables do, which would reject wrong arguments with an error of their
  // own. The vtables serve only introspection and the object manager.
  sd_bus_slot* slot = nullptr;
  const int result = sd_bus_add_object(bus_->service_connection(), &slot, path_.value().c_str(),
                                       &DBusObject::OnCall, this);
  if (result < 0) return false;
  exports_.emplace_back(slot);
  for (const auto& [name, interface] : interfaces_)
    if (!ExportInterface(name, *interface)) return false;
  return true;
}

bool DBusObject::ExportInterface(const std::string& name, const DBusInterface& interface) {
  auto vtable = std::make_unique<Vtable>();
  vtable->entries.push_back(StartEntry());
  for (const DBusInterface::Method& method : interface.methods())
    vtable->entries.push_back(MethodEntry(method, &DBusObject::OnCall));
  vtable->entries.push_back(EndEntry());
  sd_bus_slot* slot = nullptr;
  const int result =
      sd_bus_add_object_vtable(bus_->service_connection(), &slot, path_.value().c_str(),
                               name.c_str(), vtable->entries.data(), this);
  if (result < 0) return false;
  vtables_.push_back(std::move(vtable));
  exports_.emplace_back(slot);
  return true;
}

const DBusInterface::Method* DBusObject::FindMethod(sd_bus_message* call) const {
  const char* const interface_name = sd_bus_message_get_interface(call);
  const char* const member = sd_bus_message_get_member(call);
  for (const auto& [name, interface] : interfaces_) {
    // A call may omit the interface.
    if (interface_name && name != interface_name) continue;
    for (const DBusInterface::Method& method : interface->methods())
      if (method.name == member) return &method;
  }
  return nullptr;
}

int DBusObject::OnCall(sd_bus_message* call, void* object, sd_bus_error*) {
  // The results that sd-bus expects. Replying also returns 0, if the caller wants no reply.
  constexpr int kNotHandled = 0;
  constexpr int kHandled = 1;
  const DBusInterface::Method* const method = static_cast<DBusObject*>(object)->FindMethod(call);
  if (!method) return kNotHandled;
  const dbus::Message message(dbus::Reference(call));
  dbus::MessageReader reader(&message);
  ErrorPtr error;
  const int result = method->handler.Run(&reader, &error) ? sd_bus_reply_method_return(call, "")
                                                          : ReplyWithError(call, error.get());
  return result < 0 ? result : kHandled;
}

}  // namespace kestle::dbus_utils
