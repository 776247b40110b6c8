#include "base/hosted_loop.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <memory>
#include <thread>
#include <vector>

#include "base/timer.h"

namespace base {
namespace {

using ::testing::ElementsAre;

constexpr int kLongMs = 10000;

// Polls like the process that hosts the loop.
bool IsReadable(const HostedLoop& loop, int timeout_ms = 0) {
  pollfd polled = {loop.PollFd(), POLLIN, 0};
  return poll(&polled, 1, timeout_ms) == 1;
}

TEST(HostedLoop, IsNotReadableWithoutEvents) {
  HostedLoop loop;
  EXPECT_FALSE(IsReadable(loop));
  loop.Dispatch();
  EXPECT_FALSE(IsReadable(loop));
}

TEST(HostedLoop, IsReadableUntilAPostedTaskHasRun) {
  HostedLoop loop;
  std::vector<int> ran;
  {
    const HostedLoop::Scope scope(&loop);
    MessageLoop::Current()->PostTask([&ran] { ran.push_back(1); });
    MessageLoop::Current()->PostTask([&ran] { ran.push_back(2); });
  }
  EXPECT_TRUE(IsReadable(loop));
  EXPECT_THAT(ran, ElementsAre());
  loop.Dispatch();
  EXPECT_THAT(ran, ElementsAre(1, 2));
  EXPECT_FALSE(IsReadable(loop));
}

TEST(HostedLoop, IsReadableWhenATimerIsDue) {
  HostedLoop loop;
  int ticks = 0;
  RepeatingTimer timer;
  const auto start = [&](TimeDelta period) {
    const HostedLoop::Scope scope(&loop);
    timer.Start("here", period, [&ticks] { ++ticks; });
  };
  start(TimeDelta::FromSeconds(3600));
  loop.Dispatch();
  EXPECT_FALSE(IsReadable(loop));
  EXPECT_EQ(ticks, 0);
  start(TimeDelta::FromMilliseconds(1));
  EXPECT_TRUE(IsReadable(loop, kLongMs));
  loop.Dispatch();
  EXPECT_GE(ticks, 1);
}

TEST(HostedLoop, DispatchesEventsThatItsFirstEventsCause) {
  HostedLoop loop;
  int ticks = 0;
  RepeatingTimer timer;
  {
    const HostedLoop::Scope scope(&loop);
    MessageLoop::Current()->PostTask([&] {
      timer.Start("here", TimeDelta(), [&] {
        if (++ticks == 2) timer.Stop();
      });
    });
  }
  loop.Dispatch();
  EXPECT_EQ(ticks, 2);
  EXPECT_FALSE(IsReadable(loop));
}

TEST(HostedLoop, DispatchReturnsEvenIfEventsNeverEnd) {
  HostedLoop loop;
  int ticks = 0;
  RepeatingTimer timer;
  {
    const HostedLoop::Scope scope(&loop);
    timer.Start("here", TimeDelta(), [&ticks] { ++ticks; });
  }
  loop.Dispatch();
  EXPECT_GT(ticks, 0);
  EXPECT_TRUE(IsReadable(loop, kLongMs));
}

TEST(HostedLoop, WaitsForAnEventOrUntilTheTimeout) {
  HostedLoop loop;
  int ticks = 0;
  RepeatingTimer timer;
  const HostedLoop::Scope scope(&loop);
  loop.SetDue(true);
  loop.Wait(TimeDelta::FromMilliseconds(1));
  timer.Start("here", TimeDelta::FromMilliseconds(1), [&ticks] { ++ticks; });
  loop.Wait(TimeDelta::FromMilliseconds(kLongMs));
  EXPECT_EQ(ticks, 0) << "before it is dispatched";
  loop.Dispatch();
  EXPECT_GE(ticks, 1);
}

TEST(HostedLoop, IsReadableWhileSetDue) {
  HostedLoop loop;
  for (const bool due : {true, false}) {
    {
      const HostedLoop::Scope scope(&loop);
      loop.SetDue(due);
    }
    EXPECT_EQ(IsReadable(loop), due);
    loop.Dispatch();
    EXPECT_EQ(IsReadable(loop), due);
  }
}

TEST(HostedLoop, IsCurrentOnlyInItsScope) {
  MessageLoop own;
  HostedLoop first;
  HostedLoop second;
  EXPECT_EQ(MessageLoop::Current(), &own);
  {
    const HostedLoop::Scope outer(&first);
    MessageLoop* const in_first = MessageLoop::Current();
    EXPECT_NE(in_first, &own);
    {
      const HostedLoop::Scope inner(&second);
      EXPECT_NE(MessageLoop::Current(), in_first);
    }
    EXPECT_EQ(MessageLoop::Current(), in_first);
  }
  EXPECT_EQ(MessageLoop::Current(), &own);
}

TEST(HostedLoop, EachThreadHasItsOwnCurrentLoop) {
  HostedLoop loop;
  const HostedLoop::Scope scope(&loop);
  MessageLoop* const here = MessageLoop::Current();
  std::thread([here] {
    HostedLoop other;
    const HostedLoop::Scope other_scope(&other);
    EXPECT_NE(MessageLoop::Current(), here);
  }).join();
  EXPECT_EQ(MessageLoop::Current(), here);
}

}  // namespace
}  // namespace base
