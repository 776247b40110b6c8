#include "base/time.h"

#include <ctime>
#include <iomanip>
#include <ostream>

namespace base {

ClockOverride g_clock_override;

namespace {

static_assert(sizeof(time_t) == 8, "a clock that ends in 2038");

int64_t ReadClock(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1000;
}

}  // namespace

Time Time::Now() {
  if (g_clock_override.time) return g_clock_override.time();
  return FromInternalValue(ReadClock(CLOCK_REALTIME));
}

TimeTicks TimeTicks::Now() {
  if (g_clock_override.ticks) return g_clock_override.ticks();
  return FromInternalValue(ReadClock(CLOCK_MONOTONIC));
}

std::ostream& operator<<(std::ostream& out, Time time) {
  // Rounded down, so that a time before the epoch has a positive fraction.
  int64_t seconds = time.ToInternalValue() / 1'000'000;
  int64_t fraction = time.ToInternalValue() % 1'000'000;
  if (fraction < 0) {
    fraction += 1'000'000;
    --seconds;
  }
  const time_t clock_seconds = seconds;
  tm calendar{};
  gmtime_r(&clock_seconds, &calendar);
  const char fill = out.fill('0');
  out << std::put_time(&calendar, "%Y-%m-%dT%H:%M:%S") << '.' << std::setw(6) << fraction << 'Z';
  out.fill(fill);
  return out;
}

}  // namespace base
