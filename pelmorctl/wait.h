// Waits for something that the message loop brings.
#pragma once

#include "base/callback.h"
#include "base/time.h"

namespace pelmorctl {

// Turns the current message loop until the condition holds. Returns false when the deadline passed
// first.
bool WaitUntil(const base::Callback<bool()>& condition, base::TimeDelta deadline);

}  // namespace pelmorctl
