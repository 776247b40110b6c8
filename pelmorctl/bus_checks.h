// The conditions that are checked over the system bus.
//
// Each call blocks the message loop until the reply or the bus's time-out of 25 s.
#pragma once

#include "pelmorctl/bus_queries.h"
#include "pelmorctl/condition.h"

namespace pelmorctl {

Condition CheckBus(const BusConnection& bus);
Condition CheckService(const BusConnection& bus);
Condition CheckClock(const BusConnection& bus);
Condition CheckRegistration(const BusConnection& bus);

}  // namespace pelmorctl
