// The daemon: creates, connects and owns all long-lived objects, and drives the uploads.
//
// One per process, on the stack of `main`. It and everything that it owns run on its message loop.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ap/common/cloud_device.h"
#include "ap/common/oauth2_manager.h"
#include "ap/common/system_clock_client.h"
#include "ap/pelmor/uploader.h"
#include "base/time.h"
#include "base/timer.h"
#include "base/weak_ptr.h"
#include "bindings/larder_proxies.h"
#include "bindings/pelmor_manager_adaptor.h"
#include "kestle/daemon/dbus_service_daemon.h"
#include "kestle/dbus_utils/dbus_object.h"
#include "metrics/metrics_library.h"

namespace varelnos::ap {

class Daemon : public kestle::DBusServiceDaemon,
               private org::quintara::ap::Pelmor::ManagerInterface {
 public:
  Daemon();
  ~Daemon() override;

 protected:
  int OnInit() override;
  void OnShutdown(int* exit_code) override;
  void RegisterDBusObjectsAsync(kestle::dbus_utils::AsyncEventSequencer* sequencer) override;

 private:
  // The D-Bus methods. They succeed even if the record is dropped.
  bool RecordMetric(kestle::ErrorPtr* error, const std::string& name,
                    const std::map<std::string, std::string>& labels,
                    const kestle::Any& value) override;
  bool RecordOfflineData(kestle::ErrorPtr* error, const std::string& type_url,
                         const std::vector<uint8_t>& data) override;
  bool RecordStructuredData(kestle::ErrorPtr* error, const std::string& type_url,
                            const std::vector<uint8_t>& data) override;

  void ConfigureUploader();
  void OnUploadTimer();
  // Sends the supervisor the status line if it has changed.
  void UpdateStatus();

  // The cloud delivers credentials in a command of `Larder`, and reads their state there.
  void OnManagerAdded(org::quintara::Larder::ManagerProxy* manager);
  void OnCommandAdded(org::quintara::Larder::CommandProxy* command);
  // `command` is null if it was removed; another one may then have its path.
  void OnCredentialsProvisioned(const dbus::ObjectPath& command_path,
                                const base::WeakPtr<org::quintara::Larder::CommandProxy>& command,
                                bool success);
  void UpdateCredentialsState(bool provisioned);

  // Destroyed from the last to the first, after the message loop has ended. `uploader_` outlives
  // the collaborators that it points to. This is safe because it uses them only in calls from the
  // daemon and in HTTP callbacks, and its destructor drops outstanding requests without a callback.
  org::quintara::ap::Pelmor::ManagerAdaptor manager_adaptor_;
  std::unique_ptr<kestle::dbus_utils::DBusObject> dbus_object_;
  std::unique_ptr<org::quintara::Larder::ObjectManagerProxy> object_manager_proxy_;
  std::unique_ptr<Uploader> uploader_;
  base::RepeatingTimer upload_timer_;
  std::unique_ptr<CloudDevice> cloud_device_;
  std::unique_ptr<OAuth2Manager> oauth2_manager_;
  MetricsLibrary metrics_library_;
  std::unique_ptr<SystemClockClient> system_clock_client_;
  uint64_t tick_count_ = 0;
  base::Time last_tick_;
  std::string shown_status_;
};

}  // namespace varelnos::ap
