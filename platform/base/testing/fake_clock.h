// A clock that stands still until a test moves it. Replaces both system clocks while it lives; one
// at a time. Timers of the message loop keep to the real clock.
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
  // Steps the wall clock alone, as a time daemon does.
  void StepTo(Time now);
};

}  // namespace base
