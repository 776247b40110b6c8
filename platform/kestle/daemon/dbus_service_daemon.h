// A daemon that is a service on the system bus: it connects, exports its objects, and acquires its
// name.
//
// It exits with EX_UNAVAILABLE if it can't connect, if its name has another owner, or when the
// connection is lost.
#pragma once

#include <memory>
#include <string>

#include "base/ref_counted.h"
#include "dbus/bus.h"
#include "dbus/types.h"
#include "kestle/daemon/daemon.h"
#include "kestle/dbus_utils/async_event_sequencer.h"
#include "kestle/dbus_utils/exported_object_manager.h"

namespace kestle {

class DBusServiceDaemon : public Daemon {
 public:
  DBusServiceDaemon(std::string service_name, dbus::ObjectPath object_manager_path);

 protected:
  [[nodiscard]] int OnInit() override;
  // Exports the objects, each with a handler of the sequencer for its completion. The name is
  // acquired after the last one, so that clients that see the name find the objects.
  virtual void RegisterDBusObjectsAsync(dbus_utils::AsyncEventSequencer* sequencer);

  // Set at the start of `OnInit`.
  scoped_refptr<dbus::Bus> bus_;
  std::unique_ptr<dbus_utils::ExportedObjectManager> object_manager_;

 private:
  [[nodiscard]] bool Connect();
  void ExportObjects();
  [[nodiscard]] bool TakeServiceName();
  void OnDisconnected();

  const std::string service_name_;
  const dbus::ObjectPath object_manager_path_;
};

}  // namespace kestle
