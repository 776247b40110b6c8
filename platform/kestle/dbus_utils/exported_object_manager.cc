#include "kestle/dbus_utils/exported_object_manager.h"

#include <systemd/sd-bus.h>

namespace kestle::dbus_utils {

ExportedObjectManager::ExportedObjectManager(const scoped_refptr<dbus::Bus>& bus,
                                             const dbus::ObjectPath& path)
    : bus_(bus), path_(path) {}

void ExportedObjectManager::RegisterAsync(const AsyncEventSequencer::CompletionAction& completion) {
  sd_bus_slot* slot = nullptr;
  const int result =
      sd_bus_add_object_manager(bus_->service_connection(), &slot, path_.value().c_str());
  export_.reset(slot);
  completion.Run(result >= 0);
}

void ExportedObjectManager::AnnounceAdded(const dbus::ObjectPath& object_path) {
  sd_bus_emit_object_added(bus_->service_connection(), object_path.value().c_str());
}

void ExportedObjectManager::AnnounceRemoved(const dbus::ObjectPath& object_path) {
  sd_bus_emit_object_removed(bus_->service_connection(), object_path.value().c_str());
}

}  // namespace kestle::dbus_utils
