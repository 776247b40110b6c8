#include "ap/pelmor/daemon.h"

#include <sysexits.h>

#include <utility>

#include "ap/common/configuration.h"
#include "ap/pelmor/daemon_status.h"
#include "base/logging.h"
#include "kestle/daemon/supervisor.h"
#include "kestle/http/transport.h"

namespace varelnos::ap {

namespace {

constexpr char kServiceName[] = "org.quintara.ap.Pelmor";
constexpr char kObjectManagerPath[] = "/org/quintara/ap/Pelmor";
constexpr char kManagerPath[] = "/org/quintara/ap/Pelmor/Manager";

constexpr base::TimeDelta kHttpTimeout = base::TimeDelta::FromSeconds(10);

std::shared_ptr<kestle::http::Transport> CreateTransport() {
  std::shared_ptr<kestle::http::Transport> transport = kestle::http::Transport::CreateDefault();
  transport->SetDefaultTimeout(kHttpTimeout);
  return transport;
}

// Byte by byte: the data is not text.
std::string ToByteString(const std::vector<uint8_t>& data) { return {data.begin(), data.end()}; }

}  // namespace

Daemon::Daemon()
    : kestle::DBusServiceDaemon(kServiceName, dbus::ObjectPath(kObjectManagerPath)),
      manager_adaptor_(this) {
  metrics_library_.Init();
}

Daemon::~Daemon() = default;

int Daemon::OnInit() {
  LOG(INFO) << "Starting pelmor daemon";
  const int exit_code = kestle::DBusServiceDaemon::OnInit();
  if (exit_code != EX_OK) return exit_code;
  object_manager_proxy_ = std::make_unique<org::quintara::Larder::ObjectManagerProxy>(bus_);
  cloud_device_ = std::make_unique<CloudDevice>(object_manager_proxy_.get());
  system_clock_client_ = std::make_unique<SystemClockClient>(bus_);
  object_manager_proxy_->SetManagerAddedCallback(
      base::Bind(&Daemon::OnManagerAdded, base::Unretained(this)));
  object_manager_proxy_->SetCommandAddedCallback(
      base::Bind(&Daemon::OnCommandAdded, base::Unretained(this)));
  ConfigureUploader();
  const base::Callback<void()> changed = base::Bind(&Daemon::UpdateStatus, base::Unretained(this));
  uploader_->SetChangedCallback(changed);
  oauth2_manager_->SetChangedCallback(changed);
  system_clock_client_->SetChangedCallback(changed);
  UpdateStatus();
  return EX_OK;
}

void Daemon::OnShutdown(int* exit_code) {
  LOG(INFO) << "Shutting down pelmor daemon";
  kestle::DBusServiceDaemon::OnShutdown(exit_code);
}

void Daemon::RegisterDBusObjectsAsync(kestle::dbus_utils::AsyncEventSequencer* sequencer) {
  dbus_object_ = std::make_unique<kestle::dbus_utils::DBusObject>(object_manager_.get(), bus_,
                                                                  dbus::ObjectPath(kManagerPath));
  manager_adaptor_.RegisterWithDBusObject(dbus_object_.get());
  constexpr bool kFailureIsFatal = true;
  dbus_object_->RegisterAsync(
      sequencer->GetHandler("Pelmor.Manager.RegisterAsync() failed.", kFailureIsFatal));
}

void Daemon::ConfigureUploader() {
  const Configuration configuration = LoadConfiguration();
  const std::shared_ptr<kestle::http::Transport> token_transport = CreateTransport();
  // libcurl must not resend an authorization code, which is valid once. And unsolicited bytes on a
  // reused connection, read as the response to a token request, would end the credentials.
  token_transport->SetConnectionReuse(false);
  oauth2_manager_ =
      std::make_unique<OAuth2Manager>(configuration.client_id, configuration.client_secret,
                                      configuration.scope, kRefreshTokenFile, token_transport);
  UpdateCredentialsState(oauth2_manager_->HasRefreshToken());
  uploader_ =
      std::make_unique<Uploader>(cloud_device_.get(), oauth2_manager_.get(), &metrics_library_,
                                 system_clock_client_.get(), configuration.url, CreateTransport());
  upload_timer_.Start("ConfigureUploader", configuration.upload_interval,
                      base::Bind(&Daemon::OnUploadTimer, base::Unretained(this)));
}

void Daemon::OnUploadTimer() {
  if (oauth2_manager_->HasRefreshToken())
    uploader_->Upload();
  else
    UpdateCredentialsState(false);
  ++tick_count_;
  last_tick_ = base::Time::Now();
  UpdateStatus();
}

void Daemon::UpdateStatus() {
  std::string status =
      FormatStatus({uploader_->Status(), oauth2_manager_->last_response(),
                    oauth2_manager_->HasRefreshToken(), oauth2_manager_->HoldsAccessToken(),
                    system_clock_client_->network_time_acquired(), tick_count_, last_tick_});
  if (status == shown_status_) return;
  shown_status_ = std::move(status);
  kestle::PublishStatus(shown_status_);
}

bool Daemon::RecordMetric(kestle::ErrorPtr* /*error*/, const std::string& name,
                          const std::map<std::string, std::string>& labels,
                          const kestle::Any& value) {
  uploader_->RecordMetric(name, labels, value);
  return true;
}

bool Daemon::RecordOfflineData(kestle::ErrorPtr* /*error*/, const std::string& type_url,
                               const std::vector<uint8_t>& data) {
  uploader_->RecordOfflineData(type_url, ToByteString(data));
  return true;
}

bool Daemon::RecordStructuredData(kestle::ErrorPtr* /*error*/, const std::string& type_url,
                                  const std::vector<uint8_t>& data) {
  uploader_->RecordStructuredData(type_url, ToByteString(data));
  return true;
}

}  // namespace varelnos::ap
