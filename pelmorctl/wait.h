// Waits for an event of the message loop.
#pragma once

#include "base/callback.h"
#include "base/time.h"

namespace pelmorctl {

// Runs the current message loop until the condition is true. Returns false if the deadline passes
// first.
[[nodiscard]] bool WaitUntil(const base::Callback<bool()>& condition, base::TimeDelta deadline);

// Runs the current message loop for this long.
void Wait(base::TimeDelta duration);

}  // namespace pelmorctl
