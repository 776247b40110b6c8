// A clock that only the test moves. Replaces both system clocks during its lifetime; one at a time.
// Timers of the message loop still use the real clock.
#pragma once

#include "base/time.h"

namespace base {

class FakeClock {
 public:
  explicit FakeClock(Time now);
  ~FakeClock();
  FakeClock(const FakeClock&) = delete;
  FakeClock& operator=(const FakeClock&) = delete;

  // Moves both clocks forward.
  void Advance(TimeDelta delta);
  // Steps the wall clock only, as a time daemon does.
  void StepTo(Time now);
};

}  // namespace base
