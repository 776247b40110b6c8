#include "base/message_loop.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "base/testing/run_until.h"
#include "base/timer.h"

namespace base {
namespace {

using testing::ElementsAre;

TEST(MessageLoop, RunReturnsTheCodeOfQuit) {
  MessageLoop loop;
  loop.PostTask([&] { loop.Quit(7); });
  EXPECT_EQ(loop.Run(), 7);
}

TEST(MessageLoop, TasksRunInTheOrderOfPostingAndNotFromPostTask) {
  MessageLoop loop;
  std::vector<int> ran;
  loop.PostTask([&] {
    loop.PostTask([&] { ran.push_back(3); });
    ran.push_back(1);
  });
  loop.PostTask([&] { ran.push_back(2); });
  EXPECT_TRUE(ran.empty());
  ASSERT_TRUE(RunUntil([&] { return ran.size() == 3; }));
  EXPECT_THAT(ran, ElementsAre(1, 2, 3));
}

TEST(MessageLoop, ATaskThatPostsItselfDoesNotStarveOthers) {
  MessageLoop loop;
  RepeatingTimer timer;
  int ticks = 0;
  int tasks = 0;
  timer.Start("test", TimeDelta::FromMilliseconds(1), [&] { ++ticks; });
  const Callback<void()> task = [&] {
    if (++tasks < 1'000'000 && ticks < 3) loop.PostTask(task);
  };
  loop.PostTask(task);
  ASSERT_TRUE(RunUntil([&] { return ticks == 3 || tasks == 1'000'000; }));
  EXPECT_EQ(ticks, 3);
}

TEST(MessageLoop, HasEndedIsTrueOnlyAfterRun) {
  MessageLoop loop;
  EXPECT_FALSE(loop.HasEnded());
  loop.PostTask([&] {
    loop.Quit(0);
    EXPECT_FALSE(loop.HasEnded());
  });
  loop.Run();
  EXPECT_TRUE(loop.HasEnded());
}

TEST(MessageLoop, ATaskPostedAfterTheEndNeverRuns) {
  MessageLoop loop;
  loop.Quit(0);
  loop.Run();
  bool ran = false;
  loop.PostTask([&] { ran = true; });
  loop.RunOnce(TimeDelta());
  EXPECT_FALSE(ran);
}

TEST(RepeatingTimer, TicksEveryPeriodUntilItIsDestroyed) {
  MessageLoop loop;
  int ticks = 0;
  {
    RepeatingTimer timer;
    timer.Start("test", TimeDelta::FromMilliseconds(2), [&] { ++ticks; });
    EXPECT_EQ(ticks, 0);
    ASSERT_TRUE(RunUntil([&] { return ticks == 3; }));
  }
  loop.RunOnce(TimeDelta::FromMilliseconds(10));
  EXPECT_EQ(ticks, 3);
}

TEST(RepeatingTimer, TicksOnlyAfterAWholePeriod) {
  MessageLoop loop;
  RepeatingTimer timer;
  const TimeTicks start = TimeTicks::Now();
  std::vector<TimeTicks> ticks;
  constexpr TimeDelta kPeriod = TimeDelta::FromMilliseconds(10);
  timer.Start("test", kPeriod, [&] { ticks.push_back(TimeTicks::Now()); });
  ASSERT_TRUE(RunUntil([&] { return ticks.size() == 3; }));
  // Relative to the start: a late tick does not delay the next ones.
  TimeTicks due = start;
  for (const TimeTicks tick : ticks) {
    due = due + kPeriod;
    EXPECT_GE(tick, due);
  }
}

TEST(RepeatingTimer, APeriodOfSixtyEightYearsLeavesTheLoopRunning) {
  MessageLoop loop;
  RepeatingTimer timer;
  timer.Start("test", TimeDelta::FromSeconds(INT32_MAX), [] { FAIL(); });
  loop.PostTask([&] { loop.Quit(7); });
  EXPECT_EQ(loop.Run(), 7);
}

TEST(RepeatingTimer, SkipsMissedTicks) {
  MessageLoop loop;
  RepeatingTimer timer;
  std::vector<TimeTicks> ticks;
  constexpr TimeDelta kPeriod = TimeDelta::FromMilliseconds(5);
  timer.Start("test", kPeriod, [&] {
    ticks.push_back(TimeTicks::Now());
    // The first tick keeps the loop busy for several periods.
    while (ticks.size() == 1 &&
           TimeTicks::Now() - ticks.front() < TimeDelta::FromMilliseconds(40)) {
    }
  });
  ASSERT_TRUE(RunUntil([&] { return ticks.size() == 4; }));
  EXPECT_GE((ticks[3] - ticks[0]).InMilliseconds(), 40 + 4);
}

class TimerWithoutPeriod : public testing::TestWithParam<int> {};

TEST_P(TimerWithoutPeriod, TicksImmediatelyAndDoesNotStarveOthers) {
  MessageLoop loop;
  RepeatingTimer timer;
  int ticks = 0;
  int tasks = 0;
  timer.Start("test", TimeDelta::FromSeconds(GetParam()), [&] {
    ++ticks;
    loop.PostTask([&] { ++tasks; });
  });
  ASSERT_TRUE(RunUntil([&] { return ticks >= 100 && tasks >= 50; }));
  // Both run equally often.
  EXPECT_LE(ticks, 2 * tasks + 2);
}

INSTANTIATE_TEST_SUITE_P(ZeroAndNegative, TimerWithoutPeriod, testing::Values(0, -1, -600));

TEST(RepeatingTimer, ATaskMayStopItsOwnTimer) {
  MessageLoop loop;
  RepeatingTimer timer;
  int ticks = 0;
  timer.Start("test", TimeDelta(), [&] {
    ++ticks;
    timer.Stop();
  });
  ASSERT_TRUE(RunUntil([&] { return ticks == 1; }));
  loop.RunOnce(TimeDelta::FromMilliseconds(5));
  EXPECT_EQ(ticks, 1);
}

}  // namespace
}  // namespace base
