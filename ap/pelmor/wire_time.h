// Times as requests carry them.
#pragma once

#include <algorithm>
#include <cstdint>

#include "base/time.h"

namespace varelnos::ap {

// Whole seconds since the Unix epoch, the fraction cut off. The service takes 32 signed bits: a
// time past them stays at their end.
constexpr int WireSeconds(base::Time time) {
  return static_cast<int>(std::clamp<int64_t>(time.ToTimeT(), INT32_MIN, INT32_MAX));
}

}  // namespace varelnos::ap
