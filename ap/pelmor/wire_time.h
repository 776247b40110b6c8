// The format of times in requests.
#pragma once

#include <algorithm>
#include <cstdint>

#include "base/time.h"

namespace varelnos::ap {

// Whole seconds since the Unix epoch, without the fraction, clamped to the 32 signed bits that the
// service accepts.
constexpr int WireSeconds(base::Time time) {
  return static_cast<int>(std::clamp<int64_t>(time.ToTimeT(), INT32_MIN, INT32_MAX));
}

}  // namespace varelnos::ap
