#include "pelmorctl/record.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <vector>

#include "bindings/pelmor_manager_proxies.h"
#include "pelmorctl/bus_queries.h"
#include "pelmorctl/files.h"

namespace pelmorctl {

namespace {

using org::quintara::ap::Pelmor::ManagerProxy;

constexpr char kAccessDenied[] = "org.freedesktop.DBus.Error.AccessDenied";
constexpr const char* kDaemonAbsent[] = {
    "org.freedesktop.DBus.Error.ServiceUnknown", "org.freedesktop.DBus.Error.NameHasNoOwner",
    "org.freedesktop.DBus.Error.NoReply", "org.freedesktop.DBus.Error.Disconnected",
    "org.freedesktop.DBus.Error.Timeout"};

RecordFailure Explain(const kestle::Error& error) {
  const std::string& code = error.GetCode();
  if (std::find(std::begin(kDaemonAbsent), std::end(kDaemonAbsent), code) !=
      std::end(kDaemonAbsent))
    return {{"the daemon does not answer (" + error.GetMessage() +
             "): start it, or see 'pelmorctl doctor'"},
            kUnavailable};
  std::string reason = "the daemon rejected it: " + error.GetMessage() + " (" + code + ")";
  if (code == kAccessDenied) reason += ": only root and the members of the group pelmor may report";
  return {{reason}};
}

// Runs `call` with a proxy of the daemon and an error sink.
template <typename Call>
Recorded CallDaemon(const Call& call) {
  const BusConnection bus = ConnectToBus();
  if (!bus) return RecordFailure{{bus.reason() + ": see 'pelmorctl doctor'"}, kUnavailable};
  ManagerProxy daemon(*bus);
  kestle::ErrorPtr error;
  if (!call(&daemon, &error)) return Explain(*error);
  return {};
}

base::Result<std::vector<uint8_t>> ReadData(const std::string& file) {
  const bool is_standard_input = file == kStandardInput;
  const FileText text =
      is_standard_input ? ReadStandardInput(kMaxDataBytes) : ReadInput(file, kMaxDataBytes);
  if (!text)
    return base::Failure{(is_standard_input ? "standard input" : file) + ": " + text.reason()};
  if (text->size() > kMaxDataBytes)
    return base::Failure{"more than " + std::to_string(kMaxDataBytes) + " bytes: too large"};
  return std::vector<uint8_t>(text->begin(), text->end());
}

}  // namespace

Recorded Record(const RecordMetric& task) {
  return CallDaemon([&](ManagerProxy* daemon, kestle::ErrorPtr* error) {
    return daemon->RecordMetric(task.name, task.labels, task.value, error);
  });
}

Recorded Record(const RecordData& task) {
  const auto data = ReadData(task.file);
  if (!data) return RecordFailure{data.failure()};
  return CallDaemon([&](ManagerProxy* daemon, kestle::ErrorPtr* error) {
    return task.kind == DataKind::kOffline
               ? daemon->RecordOfflineData(task.type_url, *data, error)
               : daemon->RecordStructuredData(task.type_url, *data, error);
  });
}

}  // namespace pelmorctl
