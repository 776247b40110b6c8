// A registration with sd-bus: a match, a pending call or an export. It ends with the pointer; its
// callback does not run after that.
#pragma once

#include <memory>

struct sd_bus_slot;

namespace dbus {

struct SlotDeleter {
  void operator()(sd_bus_slot* slot) const;
};
using Slot = std::unique_ptr<sd_bus_slot, SlotDeleter>;

}  // namespace dbus
