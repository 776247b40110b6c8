#include "pelmorctl/record.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <vector>

#include "bindings/pelmor_manager_proxies.h"
#include "pelmorctl/files.h"

namespace pelmorctl {

namespace {

using org::quintara::ap::Pelmor::ManagerProxy;

constexpr char kAccessDenied[] = "org.freedesktop.DBus.Error.AccessDenied";
constexpr const char* kDaemonAbsent[] = {
    "org.freedesktop.DBus.Error.ServiceUnknown", "org.freedesktop.DBus.Error.NameHasNoOwner",
    "org.freedesktop.DBus.Error.NoReply", "org.freedesktop.DBus.Error.Disconnected",
    "org.freedesktop.DBus.Error.Timeout"};

ExitCode Explain(const kestle::Error& error, std::string* complaint) {
  const std::string& code = error.GetCode();
  if (std::find(std::begin(kDaemonAbsent), std::end(kDaemonAbsent), code) !=
      std::end(kDaemonAbsent)) {
    *complaint = "the daemon does not answer (" + error.GetMessage() +
                 "): start it, or see 'pelmorctl doctor'";
    return kUnavailable;
  }
  *complaint = "the daemon refused: " + error.GetMessage() + " (" + code + ")";
  if (code == kAccessDenied)
    *complaint += ": only root and the members of the group pelmor may report";
  return kFailed;
}

// Calls the daemon by `call`, which takes its proxy and an error sink.
template <typename Call>
ExitCode CallDaemon(const Call& call, std::string* complaint) {
  kestle::ErrorPtr error;
  const scoped_refptr<dbus::Bus> bus = dbus::Bus::ConnectToSystemBus(&error);
  if (!bus) {
    *complaint =
        "the system bus can't be reached: " + error->GetMessage() + ": see 'pelmorctl doctor'";
    return kUnavailable;
  }
  ManagerProxy daemon(bus);
  if (call(&daemon, &error)) return kDone;
  return Explain(*error, complaint);
}

bool ReadData(const std::string& file, std::string* data, std::string* complaint) {
  std::string why;
  const bool read = file == kStandardInput ? ReadStandardInput(kMaxDataBytes, data, &why)
                                           : ReadInput(file, kMaxDataBytes, data, &why);
  if (!read) {
    *complaint = (file == kStandardInput ? "standard input" : file) + ": " + why;
  } else if (data->size() > kMaxDataBytes) {
    *complaint = "more than " + std::to_string(kMaxDataBytes) +
                 " bytes: that does not fit into a message of the bus";
  } else {
    return true;
  }
  return false;
}

}  // namespace

ExitCode Record(const RecordMetric& task, std::string* complaint) {
  return CallDaemon(
      [&](ManagerProxy* daemon, kestle::ErrorPtr* error) {
        return daemon->RecordMetric(task.name, task.labels, task.value, error);
      },
      complaint);
}

ExitCode Record(const RecordData& task, std::string* complaint) {
  std::string text;
  if (!ReadData(task.file, &text, complaint)) return kFailed;
  const std::vector<uint8_t> data(text.begin(), text.end());
  return CallDaemon(
      [&](ManagerProxy* daemon, kestle::ErrorPtr* error) {
        return task.kind == DataKind::kOffline
                   ? daemon->RecordOfflineData(task.type_url, data, error)
                   : daemon->RecordStructuredData(task.type_url, data, error);
      },
      complaint);
}

}  // namespace pelmorctl
