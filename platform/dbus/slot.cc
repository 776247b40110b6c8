#include "dbus/slot.h"

namespace dbus {

void SlotDeleter::operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }

Slot AddMatch(sd_bus* connection, const std::string& rule, sd_bus_message_handler_t handler,
              void* data) {
  sd_bus_slot* slot = nullptr;
  // Without an install callback sd-bus closes the connection if the bus rejects the match.
  sd_bus_add_match_async(connection, &slot, rule.c_str(), handler, nullptr, data);
  return Slot(slot);
}

}  // namespace dbus
