// The conditions that are checked over the system bus.
//
// They block the message loop: each D-Bus call has the default timeout of 25 s unless stated.
#pragma once

#include "pelmorctl/bus_queries.h"
#include "pelmorctl/condition.h"

namespace pelmorctl {

Condition CheckBus(const BusConnection& bus);
Condition CheckService(const BusConnection& bus);
Condition CheckClock(const BusConnection& bus);
Condition CheckRegistration(const BusConnection& bus);

}  // namespace pelmorctl
