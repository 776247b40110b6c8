// The conditions that are asked over the system bus.
//
// The calls block the message loop until the answer or the bus's time-out of 25 s.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "base/ref_counted.h"
#include "dbus/bus.h"
#include "pelmorctl/condition.h"

namespace pelmorctl {

inline constexpr char kDaemonService[] = "org.quintara.ap.Pelmor";

bool IsOnBus(const scoped_refptr<dbus::Bus>& bus, const std::string& name);

// The others take a null bus for one that is not there.
// The user of the daemon when it is on the bus.
std::optional<uid_t> FindDaemonUser(const scoped_refptr<dbus::Bus>& bus);
Condition CheckBus(const scoped_refptr<dbus::Bus>& bus, const std::string& why_not);
Condition CheckService(const scoped_refptr<dbus::Bus>& bus);
Condition CheckClock(const scoped_refptr<dbus::Bus>& bus);
Condition CheckRegistration(const scoped_refptr<dbus::Bus>& bus);

}  // namespace pelmorctl
