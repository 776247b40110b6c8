// Follows which connection owns a service name.
//
// The bus filters signals by the sender's service name, but not a signal that another connection
// addresses directly to us. So the receiver of a service's signals checks the sender here. Must not
// outlive the connection.
#pragma once

#include <systemd/sd-bus.h>

#include <string>

#include "base/callback.h"
#include "dbus/message.h"
#include "dbus/slot.h"

namespace dbus {

class NameOwner {
 public:
  // `on_changed` (may be null) runs from the loop when `owner()` has changed, also for the first
  // owner.
  NameOwner(sd_bus* connection, const std::string& service_name,
            const base::Callback<void()>& on_changed);
  NameOwner(const NameOwner&) = delete;
  NameOwner& operator=(const NameOwner&) = delete;

  // The owner's unique name; empty if there is none or the bus has not replied yet.
  [[nodiscard]] const std::string& owner() const { return owner_; }
  // True if the current owner sent the message.
  [[nodiscard]] bool Sent(const Message& message) const;

 private:
  static int OnNameOwnerChanged(sd_bus_message* raw, void* self, sd_bus_error* error);
  static int OnGetNameOwnerReply(sd_bus_message* raw, void* self, sd_bus_error* error);
  void SetOwner(const std::string& unique_name);

  const base::Callback<void()> on_changed_;
  std::string owner_;
  Slot changed_match_;
  Slot pending_call_;
};

}  // namespace dbus
