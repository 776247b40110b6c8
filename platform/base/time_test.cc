#include "base/time.h"

#include <gtest/gtest.h>

#include <sstream>

#include "base/testing/fake_clock.h"

namespace base {
namespace {

std::string Print(Time time) {
  std::ostringstream out;
  out << time;
  return out.str();
}

TEST(Time, TheInternalValueIsMicrosecondsSinceTheEpoch) {
  EXPECT_EQ(Time::FromTimeT(1700000000).ToInternalValue(), 1'700'000'000'000'000);
  EXPECT_EQ(Time::FromInternalValue(42).ToInternalValue(), 42);
}

TEST(Time, ZeroIsNull) {
  EXPECT_TRUE(Time().is_null());
  EXPECT_FALSE(Time::FromInternalValue(-1).is_null());
}

TEST(Time, WholeSecondsAreTruncatedNotRounded) {
  EXPECT_EQ(Time::FromInternalValue(1'999'999).ToTimeT(), 1);
}

TEST(Time, ArithmeticSaturates) {
  const Time end = Time::FromInternalValue(INT64_MAX);
  const Time start = Time::FromInternalValue(INT64_MIN);
  const TimeDelta second = TimeDelta::FromSeconds(1);
  EXPECT_EQ(end + second, end);
  EXPECT_EQ(start - second, start);
  EXPECT_EQ((end - start).InMicroseconds(), INT64_MAX);
  EXPECT_EQ((start - end).InMicroseconds(), INT64_MIN);
  EXPECT_EQ(TimeDelta::FromSeconds(INT64_MAX).InMicroseconds(), INT64_MAX);
  EXPECT_EQ(TimeDelta::FromMinutes(INT64_MIN).InMicroseconds(), INT64_MIN);
}

TEST(Time, PrintsIso8601InUtc) {
  const struct {
    int64_t internal_value;
    const char* text;
  } kCases[] = {
      {0, "1970-01-01T00:00:00.000000Z"},
      {1'700'000'000'000'042, "2023-11-14T22:13:20.000042Z"},
      {-1, "1969-12-31T23:59:59.999999Z"},
      {4'102'444'800'000'000, "2100-01-01T00:00:00.000000Z"},
  };
  for (const auto& test : kCases)
    EXPECT_EQ(Print(Time::FromInternalValue(test.internal_value)), test.text);
}

TEST(Clock, AFakeClockChangesOnlyWhenMoved) {
  FakeClock clock(Time::FromTimeT(1700000000));
  const TimeTicks ticks = TimeTicks::Now();
  EXPECT_EQ(Time::Now(), Time::FromTimeT(1700000000));
  clock.Advance(TimeDelta::FromSeconds(30));
  EXPECT_EQ(Time::Now(), Time::FromTimeT(1700000030));
  EXPECT_EQ(TimeTicks::Now() - ticks, TimeDelta::FromSeconds(30));
}

TEST(Clock, AStepOfTheWallClockDoesNotChangeTheMonotonicClock) {
  FakeClock clock(Time::FromTimeT(1700000000));
  const TimeTicks ticks = TimeTicks::Now();
  clock.StepTo(Time::FromTimeT(1600000000));
  EXPECT_EQ(Time::Now(), Time::FromTimeT(1600000000));
  EXPECT_EQ(TimeTicks::Now(), ticks);
}

}  // namespace
}  // namespace base
