#include "base/testing/fake_clock.h"

namespace base {

namespace {

// Not zero, which means "never".
constexpr TimeTicks kStartTicks = TimeTicks::FromInternalValue(3'600'000'000);

Time g_now;
TimeTicks g_ticks;

}  // namespace

FakeClock::FakeClock(Time now) {
  g_now = now;
  g_ticks = kStartTicks;
  g_clock_override = {[] { return g_now; }, [] { return g_ticks; }};
}

FakeClock::~FakeClock() { g_clock_override = {}; }

void FakeClock::Advance(TimeDelta delta) {
  g_now = g_now + delta;
  g_ticks = g_ticks + delta;
}

void FakeClock::StepTo(Time now) { g_now = now; }

}  // namespace base
