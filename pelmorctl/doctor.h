// Everything that must hold before the daemon takes a record and uploads it.
//
// Runs on the message loop, and turns it: the servers and daemons are asked one after another.
#pragma once

#include <vector>

#include "pelmorctl/condition.h"

namespace pelmorctl {

std::vector<Condition> Examine();

}  // namespace pelmorctl
