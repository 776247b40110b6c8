#include "ap/common/system_clock_client.h"

#include <cstdint>
#include <memory>
#include <utility>

#include "base/logging.h"
#include "kestle/dbus_utils/calls.h"

namespace varelnos::ap {

namespace {

constexpr char kServiceName[] = "org.torproject.tlsdate";
constexpr char kObjectPath[] = "/org/torproject/tlsdate";
constexpr char kInterface[] = "org.torproject.tlsdate";
constexpr char kLastSyncInfoMethod[] = "LastSyncInfo";
constexpr char kTimeUpdatedSignal[] = "TimeUpdated";
constexpr char kNetworkSource[] = "network";

}  // namespace

SystemClockClient::SystemClockClient(scoped_refptr<dbus::Bus> bus)
    : bus_(std::move(bus)),
      object_proxy_(bus_->GetObjectProxy(kServiceName, dbus::ObjectPath(kObjectPath))),
      weak_ptr_factory_(this) {}

bool SystemClockClient::GetLastSyncInfo(bool* synced, std::string* source, base::Time* sync_time) {
  const std::unique_ptr<dbus::Response> response =
      kestle::dbus_utils::CallMethodAndBlockWithTimeout(dbus::ObjectProxy::kTimeoutUseDefault,
                                                        object_proxy_, kInterface,
                                                        kLastSyncInfoMethod, nullptr);
  int64_t seconds = 0;
  if (!response || !kestle::dbus_utils::ExtractMethodCallResults(response.get(), nullptr, synced,
                                                                 source, &seconds))
    return false;
  *sync_time = base::Time::FromTimeT(seconds);
  return true;
}

bool SystemClockClient::HasNetworkTime() {
  if (network_time_acquired_) return true;
  bool synced = false;
  std::string source;
  base::Time sync_time;
  if (!GetLastSyncInfo(&synced, &source, &sync_time)) return false;
  // Only the source counts: tlsdate can be synced from its saved time, which is not enough, and can
  // report not to be synced just after the network set the clock.
  if (source != kNetworkSource) return false;
  LOG(INFO) << "Network time acquired";
  NoteNetworkTime();
  return true;
}

void SystemClockClient::WaitForNetworkTime(const base::Callback<void()>& callback) {
  CHECK(network_time_callback_.is_null());
  network_time_callback_ = callback;
  const base::Callback<void(const std::string&)> on_time_updated =
      base::Bind(&SystemClockClient::OnTimeUpdated, weak_ptr_factory_.GetWeakPtr());
  kestle::dbus_utils::ConnectToSignal(
      object_proxy_, kInterface, kTimeUpdatedSignal, on_time_updated,
      base::Bind(&SystemClockClient::OnSignalConnected, weak_ptr_factory_.GetWeakPtr()));
}

void SystemClockClient::OnSignalConnected(const std::string& /*interface*/,
                                          const std::string& signal, bool success) {
  if (!success) LOG(ERROR) << "Failed to connect to " << signal << " signal";
  // The clock may have been set before the signal was connected.
  if (HasNetworkTime()) FinishWait();
}

void SystemClockClient::OnTimeUpdated(const std::string& source) {
  if (source != kNetworkSource) return;
  NoteNetworkTime();
  FinishWait();
}

void SystemClockClient::NoteNetworkTime() {
  network_time_acquired_ = true;
  if (!changed_callback_.is_null()) changed_callback_.Run();
}

void SystemClockClient::FinishWait() {
  if (network_time_callback_.is_null()) return;
  network_time_callback_.Run();
  network_time_callback_.Reset();
}

}  // namespace varelnos::ap
