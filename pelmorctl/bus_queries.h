// Queries over the system bus.
//
// They block the message loop: each D-Bus call has the default timeout of 25 s unless stated.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "base/ref_counted.h"
#include "base/result.h"
#include "dbus/bus.h"
#include "pelmorctl/daemon_status.h"

namespace pelmorctl {

inline constexpr char kDaemonService[] = "org.quintara.ap.Pelmor";
inline constexpr char kTlsdateService[] = "org.torproject.tlsdate";

using BusConnection = base::Result<scoped_refptr<dbus::Bus>>;

BusConnection ConnectToBus();

[[nodiscard]] bool IsOnBus(const scoped_refptr<dbus::Bus>& bus, const std::string& name);

// The user that the daemon runs as, if it is on the bus.
[[nodiscard]] std::optional<uid_t> FindDaemonUser(const BusConnection& bus);

// The process id of the daemon, if it is on the bus.
[[nodiscard]] std::optional<pid_t> FindDaemonProcess(const BusConnection& bus);

// The status that the daemon has published to systemd. Waits up to 2 s for the first one.
base::Result<DaemonStatus> ReadDaemonStatus(const BusConnection& bus);

// The error that tlsdate, or the bus in its place, replies with; empty without an error. The
// timeout is 1 s.
std::string ReadTlsdateError(const scoped_refptr<dbus::Bus>& bus);

}  // namespace pelmorctl
