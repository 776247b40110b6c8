#include "pelmorctl/status_source.h"

#include "kestle/any.h"
#include "kestle/dbus_utils/calls.h"
#include "pelmorctl/bus_checks.h"

namespace pelmorctl {

namespace {

constexpr char kSystemd[] = "org.freedesktop.systemd1";
constexpr char kUnitPath[] = "/org/freedesktop/systemd1/unit/ap_2dpelmor_2eservice";
constexpr char kUnitInterface[] = "org.freedesktop.systemd1.Service";
constexpr char kStatusProperty[] = "StatusText";
constexpr char kPropertiesInterface[] = "org.freedesktop.DBus.Properties";

bool ReadStatusText(const scoped_refptr<dbus::Bus>& bus, std::string* text, std::string* why_not) {
  dbus::ObjectProxy* const unit = bus->GetObjectProxy(kSystemd, dbus::ObjectPath(kUnitPath));
  kestle::ErrorPtr error;
  const auto response = kestle::dbus_utils::CallMethodAndBlock(unit, kPropertiesInterface, "Get",
                                                               &error, std::string(kUnitInterface),
                                                               std::string(kStatusProperty));
  kestle::Any value;
  if (!response || !kestle::dbus_utils::ExtractMethodCallResults(response.get(), &error, &value)) {
    *why_not = "systemd does not tell: " + error->GetMessage();
    return false;
  }
  const auto* const status = value.TryGet<std::string>();
  *text = status ? *status : "";
  return true;
}

}  // namespace

std::optional<DaemonStatus> AskForStatus(const scoped_refptr<dbus::Bus>& bus,
                                         std::string* why_not) {
  if (!bus) {
    *why_not = "there is no bus to ask on";
    return std::nullopt;
  }
  if (!IsOnBus(bus, kDaemonService)) {
    *why_not = std::string(kDaemonService) + " is not on the bus";
    return std::nullopt;
  }
  std::string text;
  if (!ReadStatusText(bus, &text, why_not)) return std::nullopt;
  std::optional<DaemonStatus> status = DaemonStatus::Parse(text);
  if (!status)
    *why_not = text.empty() ? "systemd has no status of ap-pelmor.service"
                            : "the status of ap-pelmor.service is not one of this daemon";
  return status;
}

}  // namespace pelmorctl
