// Turns the current message loop until a condition holds, up to a generous deadline.
#pragma once

#include "base/callback.h"

namespace base {

// True when the condition came to hold; false when the deadline passed first.
[[nodiscard]] bool RunUntil(const Callback<bool()>& condition);

}  // namespace base
