#include "kestle/daemon/dbus_service_daemon.h"

#include <sysexits.h>

#include <utility>

#include "base/logging.h"
#include "kestle/error.h"

namespace kestle {

DBusServiceDaemon::DBusServiceDaemon(std::string service_name, dbus::ObjectPath object_manager_path)
    : service_name_(std::move(service_name)),
      object_manager_path_(std::move(object_manager_path)) {}

int DBusServiceDaemon::OnInit() {
  if (const int failure = Daemon::OnInit(); failure != 0) return failure;
  if (!Connect()) return EX_UNAVAILABLE;
  ExportObjects();
  return TakeServiceName() ? EX_OK : EX_UNAVAILABLE;
}

void DBusServiceDaemon::RegisterDBusObjectsAsync(dbus_utils::AsyncEventSequencer*) {}

bool DBusServiceDaemon::Connect() {
  ErrorPtr error;
  bus_ = dbus::Bus::ConnectToSystemBus(&error);
  if (!bus_ || !bus_->SeparateService(&error)) {
    LOG(ERROR) << "Unable to connect to the system bus: " << error->GetMessage();
    return false;
  }
  bus_->SetDisconnectedCallback(
      base::Bind(&DBusServiceDaemon::OnDisconnected, base::Unretained(this)));
  return true;
}

void DBusServiceDaemon::ExportObjects() {
  dbus_utils::AsyncEventSequencer sequencer;
  object_manager_ = std::make_unique<dbus_utils::ExportedObjectManager>(bus_, object_manager_path_);
  object_manager_->RegisterAsync(
      sequencer.GetHandler("ObjectManager.RegisterAsync() failed.", /*failure_is_fatal=*/true));
  RegisterDBusObjectsAsync(&sequencer);
  bool completed = false;
  sequencer.OnAllTasksCompletedCall([&completed](bool) { completed = true; });
  // The bus library exports within the call.
  CHECK(completed) << "The objects are not all exported";
}

bool DBusServiceDaemon::TakeServiceName() {
  ErrorPtr error;
  if (bus_->RequestOwnership(service_name_, &error)) return true;
  LOG(ERROR) << "Unable to take the service name " << service_name_ << ": " << error->GetMessage();
  return false;
}

void DBusServiceDaemon::OnDisconnected() {
  LOG(ERROR) << "Lost the connection to the system bus";
  QuitWithExitCode(EX_UNAVAILABLE);
}

}  // namespace kestle
