#include "pelmorctl/bus_queries.h"

#include <cstdint>
#include <memory>
#include <utility>

#include "kestle/any.h"
#include "kestle/dbus_utils/calls.h"
#include "pelmorctl/wait.h"

namespace pelmorctl {

namespace {

struct Remote {
  const char* service;
  const char* path;
  const char* interface;
};
constexpr Remote kBus = {"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus"};
constexpr Remote kUnit = {"org.freedesktop.systemd1",
                          "/org/freedesktop/systemd1/unit/ap_2dpelmor_2eservice",
                          "org.freedesktop.DBus.Properties"};
constexpr Remote kTlsdate = {kTlsdateService, "/org/torproject/tlsdate", kTlsdateService};

constexpr char kUnitInterface[] = "org.freedesktop.systemd1.Service";
constexpr char kStatusProperty[] = "StatusText";
// The daemon takes its name a moment before it publishes its first status.
constexpr base::TimeDelta kFirstStatusDeadline = base::TimeDelta::FromSeconds(2);
constexpr base::TimeDelta kFirstStatusPeriod = base::TimeDelta::FromMilliseconds(50);

// The reply to a method that takes strings; null, with an entry in `error`, without a reply.
template <typename... Strings>
std::unique_ptr<dbus::Response> Call(const scoped_refptr<dbus::Bus>& bus, const Remote& remote,
                                     const char* method, kestle::ErrorPtr* error,
                                     const Strings&... strings) {
  dbus::ObjectProxy* const proxy =
      bus->GetObjectProxy(remote.service, dbus::ObjectPath(remote.path));
  return kestle::dbus_utils::CallMethodAndBlock(proxy, remote.interface, method, error,
                                                std::string(strings)...);
}

// What the bus knows of the daemon's connection; nothing if there is none.
std::optional<uint32_t> AskAboutDaemon(const BusConnection& bus, const char* method) {
  if (!bus) return std::nullopt;
  const auto response = Call(*bus, kBus, method, nullptr, kDaemonService);
  uint32_t number = 0;
  if (!response || !dbus::MessageReader(response.get()).PopUint32(&number)) return std::nullopt;
  return number;
}

base::Result<std::string> ReadStatusText(const scoped_refptr<dbus::Bus>& bus) {
  kestle::ErrorPtr error;
  const auto response = Call(bus, kUnit, "Get", &error, kUnitInterface, kStatusProperty);
  kestle::Any value;
  if (!response || !kestle::dbus_utils::ExtractMethodCallResults(response.get(), &error, &value))
    return base::Failure{"systemd does not answer: " + error->GetMessage()};
  const auto* const text = value.TryGet<std::string>();
  return text ? *text : "";
}

// Gives a daemon that has just started the time to publish its status.
base::Result<std::string> AwaitStatusText(const scoped_refptr<dbus::Bus>& bus) {
  const base::TimeTicks end = base::TimeTicks::Now() + kFirstStatusDeadline;
  for (;;) {
    base::Result<std::string> text = ReadStatusText(bus);
    if (!text || !text->empty() || base::TimeTicks::Now() >= end) return text;
    Wait(kFirstStatusPeriod);
  }
}

}  // namespace

BusConnection ConnectToBus() {
  kestle::ErrorPtr error;
  scoped_refptr<dbus::Bus> bus = dbus::Bus::ConnectToSystemBus(&error);
  if (!bus) return base::Failure{"the system bus can't be reached: " + error->GetMessage()};
  return bus;
}

bool IsOnBus(const scoped_refptr<dbus::Bus>& bus, const std::string& name) {
  const auto response = Call(bus, kBus, "NameHasOwner", nullptr, name);
  bool has_owner = false;
  return response && dbus::MessageReader(response.get()).PopBool(&has_owner) && has_owner;
}

std::optional<uid_t> FindDaemonUser(const BusConnection& bus) {
  return AskAboutDaemon(bus, "GetConnectionUnixUser");
}

std::optional<pid_t> FindDaemonProcess(const BusConnection& bus) {
  return AskAboutDaemon(bus, "GetConnectionUnixProcessID");
}

base::Result<DaemonStatus> ReadDaemonStatus(const BusConnection& bus) {
  if (!bus) return bus.failure();
  if (!IsOnBus(*bus, kDaemonService))
    return base::Failure{std::string(kDaemonService) + " is not on the bus"};
  const base::Result<std::string> text = AwaitStatusText(*bus);
  if (!text) return text.failure();
  if (text->empty()) return base::Failure{"systemd has no status of ap-pelmor.service"};
  std::optional<DaemonStatus> status = DaemonStatus::Parse(*text);
  if (!status) return base::Failure{"the status of ap-pelmor.service is not one of this daemon"};
  return std::move(*status);
}

std::string ReadTlsdateError(const scoped_refptr<dbus::Bus>& bus) {
  constexpr int kTimeoutMs = 1000;
  dbus::ObjectProxy* const proxy =
      bus->GetObjectProxy(kTlsdate.service, dbus::ObjectPath(kTlsdate.path));
  kestle::ErrorPtr error;
  const auto response = kestle::dbus_utils::CallMethodAndBlockWithTimeout(
      kTimeoutMs, proxy, kTlsdate.interface, "LastSyncInfo", &error);
  return response ? "" : error->GetMessage();
}

}  // namespace pelmorctl
