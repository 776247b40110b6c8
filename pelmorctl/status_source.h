// Where the daemon's status comes from: systemd, which has it from the daemon.
//
// The calls block until the answer or the bus's time-out of 25 s.
#pragma once

#include <optional>
#include <string>

#include "base/ref_counted.h"
#include "dbus/bus.h"
#include "pelmorctl/daemon_status.h"

namespace pelmorctl {

// Nothing, with the reason in `why_not`, when the daemon is not on the bus or its supervisor does
// not show what it has published. A null bus is one that can't be reached.
std::optional<DaemonStatus> AskForStatus(const scoped_refptr<dbus::Bus>& bus, std::string* why_not);

}  // namespace pelmorctl
