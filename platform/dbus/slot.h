// A registration with sd-bus: a match, a pending call or an export. It ends with the pointer; its
// callback does not run after that.
#pragma once

#include <systemd/sd-bus.h>

#include <memory>
#include <string>

namespace dbus {

struct SlotDeleter {
  void operator()(sd_bus_slot* slot) const;
};
using Slot = std::unique_ptr<sd_bus_slot, SlotDeleter>;

// Runs `handler` with `data` for each message that the rule matches, once the bus has installed it.
// There is no error to handle: if the bus rejects the match, sd-bus closes the connection; on a
// lost connection the result is null, and no message arrives anyway.
[[nodiscard]] Slot AddMatch(sd_bus* connection, const std::string& rule,
                            sd_bus_message_handler_t handler, void* data);

}  // namespace dbus
