#include "pelmorctl/bus_checks.h"

#include "ap/common/cloud_device.h"
#include "ap/common/system_clock_client.h"
#include "bindings/larder_proxies.h"
#include "pelmorctl/wait.h"

namespace pelmorctl {

namespace {

constexpr char kLarder[] = "org.quintara.Larder";
constexpr char kNetworkSource[] = "network";

// For Larder to announce its objects.
constexpr base::TimeDelta kLarderDeadline = base::TimeDelta::FromSeconds(5);

Condition NoBus(const char* name, const BusConnection& bus) {
  return Condition::Fail(name, "unknown: " + bus.reason(), "fix the bus first");
}

std::string NotOnBus(const char* service) { return std::string(service) + " is not on the bus"; }

}  // namespace

Condition CheckBus(const BusConnection& bus) {
  constexpr char kName[] = "bus";
  if (bus) return Condition::Pass(kName, "the system bus answers");
  return Condition::Fail(kName, bus.reason(),
                         "start the bus (dbus.socket), and check whether this user may connect");
}

Condition CheckService(const BusConnection& bus) {
  constexpr char kName[] = "service";
  if (!bus) return NoBus(kName, bus);
  if (!IsOnBus(*bus, kDaemonService))
    return Condition::Fail(kName, NotOnBus(kDaemonService),
                           "start the daemon (systemctl start ap-pelmor); if it exits again, its "
                           "log gives the reason");
  return Condition::Pass(kName, std::string(kDaemonService) + " is on the bus");
}

Condition CheckClock(const BusConnection& bus) {
  constexpr char kName[] = "clock";
  if (!bus) return NoBus(kName, bus);
  varelnos::ap::SystemClockClient client(*bus);
  bool synced = false;
  std::string source;
  base::Time sync_time;
  if (!client.GetLastSyncInfo(&synced, &source, &sync_time)) {
    if (!IsOnBus(*bus, kTlsdateService))
      return Condition::Fail(kName, "unknown: " + NotOnBus(kTlsdateService),
                             "start the time daemon, tlsdate");
    const std::string error = ReadTlsdateError(*bus);
    return Condition::Fail(
        kName,
        "unknown: tlsdate does not give a valid answer" + (error.empty() ? "" : ": " + error),
        "see tlsdate's log, and check whether the bus policy lets this user call it");
  }
  if (source == kNetworkSource) return Condition::Pass(kName, "set from the network");
  return Condition::Fail(kName, "not set from the network; its source is '" + source + "'",
                         "wait until tlsdate has reached a server, or find out why it can't");
}

Condition CheckRegistration(const BusConnection& bus) {
  constexpr char kName[] = "registration";
  if (!bus) return NoBus(kName, bus);
  if (!IsOnBus(*bus, kLarder))
    return Condition::Fail(kName, "unknown: " + NotOnBus(kLarder),
                           "start the cloud-registration daemon, Larder");
  org::quintara::Larder::ObjectManagerProxy objects(*bus);
  // Without a manager, the call below reports the error.
  (void)WaitUntil([&] { return !objects.GetManagerProxies().empty(); }, kLarderDeadline);
  varelnos::ap::CloudDevice device(&objects);
  std::string id;
  kestle::ErrorPtr error;
  if (!device.CheckDeviceRegistered(&id, &error))
    return Condition::Fail(kName, "unknown: Larder reports: " + error->GetMessage(),
                           "see Larder's log, and check whether the bus policy lets this user "
                           "call it");
  if (id.empty())
    return Condition::Fail(kName, "the device is not registered with the cloud",
                           "register it: it has no device id yet");
  return Condition::Pass(kName, "registered as " + id);
}

}  // namespace pelmorctl
