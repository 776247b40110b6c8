// The exported org.freedesktop.DBus.ObjectManager: lists the objects below its path, and announces
// added and removed ones.
#pragma once

#include "base/ref_counted.h"
#include "dbus/bus.h"
#include "dbus/slot.h"
#include "dbus/types.h"
#include "kestle/dbus_utils/async_event_sequencer.h"

namespace kestle::dbus_utils {

class ExportedObjectManager {
 public:
  ExportedObjectManager(const scoped_refptr<dbus::Bus>& bus, const dbus::ObjectPath& path);
  ExportedObjectManager(const ExportedObjectManager&) = delete;
  ExportedObjectManager& operator=(const ExportedObjectManager&) = delete;

  // Exports the manager until it is destroyed. `completion` runs before this returns.
  void RegisterAsync(const AsyncEventSequencer::CompletionAction& completion);

  // Called by the objects, after their export and before its end. Failures are ignored: they mean
  // that the connection is lost.
  void AnnounceAdded(const dbus::ObjectPath& object_path);
  void AnnounceRemoved(const dbus::ObjectPath& object_path);

 private:
  const scoped_refptr<dbus::Bus> bus_;
  const dbus::ObjectPath path_;
  dbus::Slot export_;
};

}  // namespace kestle::dbus_utils
