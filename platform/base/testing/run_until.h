// Runs the current message loop until a condition is true, up to a generous deadline.
#pragma once

#include "base/callback.h"

namespace base {

// False if the deadline passed first.
[[nodiscard]] bool RunUntil(const Callback<bool()>& condition);

}  // namespace base
