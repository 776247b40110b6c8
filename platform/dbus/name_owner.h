// Follows which connection owns a service name.
//
// The bus filters signals by the sender's service name, but a signal that another connection
// addresses to us directly passes by that filter: whoever listens to a service checks the sender
// here. Must not outlive the connection.
#pragma once

#include <systemd/sd-bus.h>

#include <string>

#include "base/callback.h"
#include "dbus/message.h"
#include "dbus/slot.h"

namespace dbus {

class NameOwner {
 public:
  // `on_changed` (may be null) runs from the loop whenever `owner()` has changed, the first owner
  // included.
  NameOwner(sd_bus* connection, const std::string& service_name,
            const base::Callback<void()>& on_changed);
  NameOwner(const NameOwner&) = delete;
  NameOwner& operator=(const NameOwner&) = delete;

  // The owner's unique name; empty when there is none, and until the bus has told.
  [[nodiscard]] const std::string& owner() const { return owner_; }
  [[nodiscard]] bool Sent(const Message& message) const;

 private:
  static int OnNameOwnerChanged(sd_bus_message* raw, void* self, sd_bus_error* error);
  static int OnGetNameOwnerReply(sd_bus_message* raw, void* self, sd_bus_error* error);
  void SetOwner(const std::string& told);

  const base::Callback<void()> on_changed_;
  std::string owner_;
  Slot changed_match_;
  Slot pending_call_;
};

}  // namespace dbus
