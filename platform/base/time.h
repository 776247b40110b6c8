// Points in time and durations, in whole microseconds.
//
// `Time` is the wall clock, `TimeTicks` the monotonic one. All arithmetic saturates. A test sets
// both clocks with `base/testing/fake_clock.h`.
#pragma once

#include <compare>
#include <cstdint>
#include <iosfwd>

namespace base {

class TimeDelta {
 public:
  constexpr TimeDelta() = default;
  static constexpr TimeDelta FromMicroseconds(int64_t microseconds) {
    return TimeDelta(microseconds);
  }
  static constexpr TimeDelta FromMilliseconds(int64_t milliseconds) {
    return TimeDelta(Scale(milliseconds, 1000));
  }
  static constexpr TimeDelta FromSeconds(int64_t seconds) {
    return TimeDelta(Scale(seconds, 1'000'000));
  }
  static constexpr TimeDelta FromMinutes(int64_t minutes) {
    return TimeDelta(Scale(minutes, 60'000'000));
  }

  [[nodiscard]] constexpr int64_t InMicroseconds() const { return microseconds_; }
  [[nodiscard]] constexpr int64_t InMilliseconds() const { return microseconds_ / 1000; }

  constexpr auto operator<=>(const TimeDelta&) const = default;

 private:
  constexpr explicit TimeDelta(int64_t microseconds) : microseconds_(microseconds) {}
  static constexpr int64_t Scale(int64_t value, int64_t factor) {
    int64_t product = 0;
    if (!__builtin_mul_overflow(value, factor, &product)) return product;
    return value < 0 ? INT64_MIN : INT64_MAX;
  }

  int64_t microseconds_ = 0;
};

// A count of microseconds since the clock's zero.
template <typename Clock>
class TimePoint {
 public:
  // The clock's zero, which means "unset".
  [[nodiscard]] constexpr bool is_null() const { return microseconds_ == 0; }
  [[nodiscard]] constexpr int64_t ToInternalValue() const { return microseconds_; }
  static constexpr Clock FromInternalValue(int64_t microseconds) {
    Clock time;
    time.microseconds_ = microseconds;
    return time;
  }

  friend constexpr Clock operator+(Clock time, TimeDelta delta) {
    int64_t sum = 0;
    if (__builtin_add_overflow(time.microseconds_, delta.InMicroseconds(), &sum))
      sum = delta < TimeDelta() ? INT64_MIN : INT64_MAX;
    return FromInternalValue(sum);
  }
  friend constexpr Clock operator-(Clock time, TimeDelta delta) {
    int64_t difference = 0;
    if (__builtin_sub_overflow(time.microseconds_, delta.InMicroseconds(), &difference))
      difference = delta < TimeDelta() ? INT64_MAX : INT64_MIN;
    return FromInternalValue(difference);
  }
  friend constexpr TimeDelta operator-(Clock later, Clock earlier) {
    int64_t difference = 0;
    if (__builtin_sub_overflow(later.microseconds_, earlier.microseconds_, &difference))
      difference = later < earlier ? INT64_MIN : INT64_MAX;
    return TimeDelta::FromMicroseconds(difference);
  }
  friend constexpr auto operator<=>(const TimePoint&, const TimePoint&) = default;

 private:
  int64_t microseconds_ = 0;
};

// Wall-clock time since the Unix epoch.
class Time : public TimePoint<Time> {
 public:
  static Time Now();
  // From whole seconds since the Unix epoch.
  static constexpr Time FromTimeT(int64_t seconds) {
    return Time() + TimeDelta::FromSeconds(seconds);
  }
  // Whole seconds since the Unix epoch, without the fraction.
  [[nodiscard]] constexpr int64_t ToTimeT() const { return ToInternalValue() / 1'000'000; }
};

// Time on CLOCK_MONOTONIC.
class TimeTicks : public TimePoint<TimeTicks> {
 public:
  static TimeTicks Now();
};

// Prints ISO 8601 in UTC with microseconds: 2023-11-14T22:13:20.000000Z.
std::ostream& operator<<(std::ostream& out, Time time);

// For `FakeClock` only: if set, replaces the system's clocks.
struct ClockOverride {
  Time (*time)() = nullptr;
  TimeTicks (*ticks)() = nullptr;
};
extern ClockOverride g_clock_override;

}  // namespace base
