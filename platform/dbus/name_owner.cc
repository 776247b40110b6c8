#include "dbus/name_owner.h"

namespace dbus {

namespace {
constexpr char kBusService[] = "org.freedesktop.DBus";
constexpr char kBusPath[] = "/org/freedesktop/DBus";

}  // namespace

NameOwner::NameOwner(sd_bus* connection, const std::string& service_name,
                     const base::Callback<void()>& on_changed)
    : on_changed_(on_changed) {
  const std::string rule = std::string("type='signal',sender='") + kBusService + "',path='" +
                           kBusPath + "',interface='" + kBusService +
                           "',member='NameOwnerChanged',arg0='" + service_name + "'";
  changed_match_ = AddMatch(connection, rule, &NameOwner::OnNameOwnerChanged, this);
  // Sent after the match, so that no change falls between the two.
  sd_bus_slot* slot = nullptr;
  sd_bus_call_method_async(connection, &slot, kBusService, kBusPath, kBusService, "GetNameOwner",
                           &NameOwner::OnGetNameOwnerReply, this, "s", service_name.c_str());
  pending_call_.reset(slot);
}

bool NameOwner::Sent(const Message& message) const {
  return !owner_.empty() && message.GetSender() == owner_;
}

int NameOwner::OnNameOwnerChanged(sd_bus_message* raw, void* self, sd_bus_error* /*error*/) {
  const Message message(Reference(raw));
  MessageReader reader(&message);
  std::string name;
  std::string old_owner;
  std::string new_owner;
  if (message.GetSender() == kBusService && message.HasSignature("sss") &&
      reader.PopString(&name) && reader.PopString(&old_owner) && reader.PopString(&new_owner))
    static_cast<NameOwner*>(self)->SetOwner(new_owner);
  return 0;
}

int NameOwner::OnGetNameOwnerReply(sd_bus_message* raw, void* self, sd_bus_error* /*error*/) {
  const Response response(Reference(raw));
  std::string owner;
  MessageReader reader(&response);
  // An error reply means that the name has no owner.
  if (response.IsError() || !reader.PopString(&owner)) owner.clear();
  static_cast<NameOwner*>(self)->SetOwner(owner);
  return 0;
}

void NameOwner::SetOwner(const std::string& unique_name) {
  // An invalid name can't be called, and counts as no owner.
  const std::string owner =
      sd_bus_service_name_is_valid(unique_name.c_str()) > 0 ? unique_name : "";
  if (owner == owner_) return;
  owner_ = owner;
  if (!on_changed_.is_null()) on_changed_.Run();
}

}  // namespace dbus
