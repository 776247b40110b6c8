// Checks every precondition of recording and uploading.
//
// Runs the message loop meanwhile: the daemons and servers are asked one after another.
#pragma once

#include <vector>

#include "pelmorctl/condition.h"

namespace pelmorctl {

std::vector<Condition> Examine();

}  // namespace pelmorctl
