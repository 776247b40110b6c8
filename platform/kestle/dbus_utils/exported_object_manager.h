// The exported org.freedesktop.DBus.ObjectManager: lists the objects under its path to whoever
// asks, and announces them as they come and go.
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

  // Exports the manager until its end. `completion` runs before this returns.
  void RegisterAsync(const AsyncEventSequencer::CompletionAction& completion);

  // For the objects themselves, after their export and before its end. When nobody can be told (the
  // connection is lost), nobody is.
  void AnnounceAdded(const dbus::ObjectPath& object_path);
  void AnnounceRemoved(const dbus::ObjectPath& object_path);

 private:
  const scoped_refptr<dbus::Bus> bus_;
  const dbus::ObjectPath path_;
  dbus::Slot export_;
};

}  // namespace kestle::dbus_utils
