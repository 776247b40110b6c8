#include "pelmorctl/bus_checks.h"

#include <cstdint>
#include <memory>

#include "ap/common/cloud_device.h"
#include "ap/common/system_clock_client.h"
#include "bindings/larder_proxies.h"
#include "kestle/dbus_utils/calls.h"
#include "pelmorctl/wait.h"

namespace pelmorctl {

namespace {

constexpr char kLarder[] = "org.quintara.Larder";
constexpr char kTlsdate[] = "org.torproject.tlsdate";
constexpr char kTlsdatePath[] = "/org/torproject/tlsdate";
constexpr char kNetworkSource[] = "network";

constexpr char kBus[] = "org.freedesktop.DBus";
constexpr char kBusPath[] = "/org/freedesktop/DBus";

// How long Larder may take to tell of its objects.
constexpr base::TimeDelta kLarderDeadline = base::TimeDelta::FromSeconds(5);

constexpr char kNoBus[] = "unknown: there is no bus to ask on";
constexpr char kBusFirst[] = "mend the bus first";

// Asks the bus itself about a service name. Null when it has no answer.
std::unique_ptr<dbus::Response> AskBus(const scoped_refptr<dbus::Bus>& bus,
                                       const std::string& method, const std::string& name) {
  dbus::ObjectProxy* const proxy = bus->GetObjectProxy(kBus, dbus::ObjectPath(kBusPath));
  return kestle::dbus_utils::CallMethodAndBlock(proxy, kBus, method, nullptr, name);
}

// What tlsdate, or the bus for it, says to a call that has just failed; empty when nothing.
std::string TlsdateError(const scoped_refptr<dbus::Bus>& bus) {
  constexpr int kTimeoutMs = 1000;
  dbus::ObjectProxy* const proxy = bus->GetObjectProxy(kTlsdate, dbus::ObjectPath(kTlsdatePath));
  kestle::ErrorPtr error;
  const auto response = kestle::dbus_utils::CallMethodAndBlockWithTimeout(
      kTimeoutMs, proxy, kTlsdate, "LastSyncInfo", &error);
  return response ? "" : ": " + error->GetMessage();
}

std::string NotOnBus(const char* name) { return std::string(name) + " is not on the bus"; }

}  // namespace

bool IsOnBus(const scoped_refptr<dbus::Bus>& bus, const std::string& name) {
  const auto response = AskBus(bus, "NameHasOwner", name);
  bool has_owner = false;
  return response && dbus::MessageReader(response.get()).PopBool(&has_owner) && has_owner;
}

std::optional<uid_t> FindDaemonUser(const scoped_refptr<dbus::Bus>& bus) {
  if (!bus || !IsOnBus(bus, kDaemonService)) return std::nullopt;
  const auto response = AskBus(bus, "GetConnectionUnixUser", kDaemonService);
  uint32_t user = 0;
  if (!response || !dbus::MessageReader(response.get()).PopUint32(&user)) return std::nullopt;
  return user;
}

Condition CheckBus(const scoped_refptr<dbus::Bus>& bus, const std::string& why_not) {
  constexpr char kName[] = "bus";
  if (bus) return Condition::Green(kName, "the system bus answers");
  return Condition::Red(kName, "the system bus can't be reached: " + why_not,
                        "start the bus (dbus.socket), and see whether this user may connect");
}

Condition CheckService(const scoped_refptr<dbus::Bus>& bus) {
  constexpr char kName[] = "service";
  if (!bus) return Condition::Red(kName, kNoBus, kBusFirst);
  if (!IsOnBus(bus, kDaemonService))
    return Condition::Red(kName, NotOnBus(kDaemonService),
                          "start the daemon (systemctl start ap-pelmor); when it does not stay up, "
                          "its log says why");
  return Condition::Green(kName, std::string(kDaemonService) + " is on the bus");
}

Condition CheckClock(const scoped_refptr<dbus::Bus>& bus) {
  constexpr char kName[] = "clock";
  if (!bus) return Condition::Red(kName, kNoBus, kBusFirst);
  varelnos::ap::SystemClockClient client(bus);
  bool synced = false;
  std::string source;
  base::Time sync_time;
  if (!client.GetLastSyncInfo(&synced, &source, &sync_time)) {
    if (!IsOnBus(bus, kTlsdate))
      return Condition::Red(kName, "unknown: " + NotOnBus(kTlsdate),
                            "start the time daemon, tlsdate");
    return Condition::Red(kName,
                          "unknown: tlsdate does not answer as it should" + TlsdateError(bus),
                          "see tlsdate's log, and whether the bus lets this user ask it");
  }
  if (source == kNetworkSource) return Condition::Green(kName, "set from the network");
  return Condition::Red(kName, "not set from the network; its source is '" + source + "'",
                        "wait until tlsdate has reached a server, or see why it can't");
}

Condition CheckRegistration(const scoped_refptr<dbus::Bus>& bus) {
  constexpr char kName[] = "registration";
  if (!bus) return Condition::Red(kName, kNoBus, kBusFirst);
  if (!IsOnBus(bus, kLarder))
    return Condition::Red(kName, "unknown: " + NotOnBus(kLarder),
                          "start the cloud-registration daemon, Larder");
  org::quintara::Larder::ObjectManagerProxy objects(bus);
  WaitUntil([&] { return !objects.GetManagerProxies().empty(); }, kLarderDeadline);
  varelnos::ap::CloudDevice device(&objects);
  std::string id;
  kestle::ErrorPtr error;
  if (!device.CheckDeviceRegistered(&id, &error))
    return Condition::Red(kName, "unknown: Larder says: " + error->GetMessage(),
                          "see Larder's log, and whether the bus lets this user ask it");
  if (id.empty())
    return Condition::Red(kName, "the device is not registered with the cloud",
                          "register it: it has no device id yet");
  return Condition::Green(kName, "registered as " + id);
}

}  // namespace pelmorctl
