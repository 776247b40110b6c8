// Waits for an event of the message loop.
#pragma once

#include "base/callback.h"
#include "base/time.h"

namespace pelmorctl {

// Runs the current message loop until the condition is true. Returns false if the deadline passes
// first.
bool WaitUntil(const base::Callback<bool()>& condition, base::TimeDelta deadline);

}  // namespace pelmorctl
