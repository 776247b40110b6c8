#include "kestle/daemon/daemon.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "base/testing/log_capture.h"
#include "kestle/daemon/supervisor.h"
#include "kestle/daemon/testing/supervisor.h"

namespace kestle {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

class TestDaemon : public Daemon {
 public:
  int OnInit() override {
    events_.emplace_back("init");
    if (!in_loop_.is_null()) base::MessageLoop::Current()->PostTask(in_loop_);
    return init_result_;
  }
  void OnShutdown(int* exit_code) override {
    events_.push_back("shutdown " + std::to_string(*exit_code));
    if (shutdown_code_ != 0) *exit_code = shutdown_code_;
  }
  bool OnRestart() override {
    events_.emplace_back("restart");
    return restarts_in_place_ || Daemon::OnRestart();
  }

  // Runs on the loop, right after the start.
  base::Callback<void()> in_loop_;
  int init_result_ = 0;
  int shutdown_code_ = 0;
  bool restarts_in_place_ = false;
  std::vector<std::string> events_;
};

bool IsBlocked(int signal) {
  sigset_t blocked;
  pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  return sigismember(&blocked, signal) == 1;
}

TEST(Daemon, IsNotDumpable) {
  ASSERT_EQ(prctl(PR_SET_DUMPABLE, 1), 0);
  const TestDaemon daemon;
  EXPECT_EQ(prctl(PR_GET_DUMPABLE), 0);
}

TEST(Daemon, TerminationSignalsQuitWithCode0) {
  for (const int signal : {SIGTERM, SIGINT}) {
    TestDaemon daemon;
    daemon.in_loop_ = [signal] { raise(signal); };
    EXPECT_EQ(daemon.Run(), 0);
    EXPECT_THAT(daemon.events_, ElementsAre("init", "shutdown 0"));
  }
}

TEST(Daemon, AHangupQuitsWithCode0) {
  TestDaemon daemon;
  daemon.in_loop_ = [] { raise(SIGHUP); };
  EXPECT_EQ(daemon.Run(), 0);
  EXPECT_THAT(daemon.events_, ElementsAre("init", "restart", "shutdown 0"));
}

TEST(Daemon, ADaemonThatRestartsInPlaceKeepsRunning) {
  TestDaemon daemon;
  daemon.restarts_in_place_ = true;
  daemon.RegisterHandler(SIGUSR1, [&daemon](int) {
    daemon.QuitWithExitCode(5);
    return false;
  });
  // Pending signals are handled in the order of their numbers, so SIGHUP first.
  daemon.in_loop_ = [] {
    raise(SIGUSR1);
    raise(SIGHUP);
  };
  EXPECT_EQ(daemon.Run(), 5);
  EXPECT_THAT(daemon.events_, ElementsAre("init", "restart", "shutdown 5"));
}

TEST(Daemon, ASignalDuringStartupIsHandledAfterIt) {
  class Interrupted : public TestDaemon {
   public:
    int OnInit() override {
      raise(SIGTERM);
      return TestDaemon::OnInit();
    }
  };
  Interrupted daemon;
  EXPECT_EQ(daemon.Run(), 0);
  EXPECT_THAT(daemon.events_, ElementsAre("init", "shutdown 0"));
}

TEST(Daemon, WritingToAClosedPipeDoesNotEndTheProcess) {
  // As in a process that was started by a shell.
  std::signal(SIGPIPE, SIG_DFL);
  TestDaemon daemon;
  daemon.in_loop_ = [&daemon] {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    EXPECT_EQ(write(ends[1], "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
    close(ends[1]);
    daemon.Quit();
  };
  EXPECT_EQ(daemon.Run(), 0);
}

TEST(Daemon, ExceedingTheFileSizeLimitDoesNotEndTheProcess) {
  std::signal(SIGXFSZ, SIG_DFL);
  const TestDaemon daemon;
  FILE* const file = std::tmpfile();
  ASSERT_TRUE(file);
  rlimit before;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  const rlimit nothing = {0, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &nothing), 0);
  const ssize_t written = write(fileno(file), "x", 1);
  const int error = errno;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
  EXPECT_EQ(written, -1);
  EXPECT_EQ(error, EFBIG);
  std::fclose(file);
}

TEST(Daemon, AFailedStartSetsTheExitCode) {
  Supervisor supervisor;
  TestDaemon daemon;
  daemon.init_result_ = 78;
  daemon.in_loop_ = [] { ADD_FAILURE() << "the loop ran"; };
  EXPECT_EQ(daemon.Run(), 78);
  EXPECT_THAT(daemon.events_, ElementsAre("init"));
  EXPECT_THAT(supervisor.TakeNotices(), IsEmpty());
}

TEST(Daemon, ASecondSignalDoesNotChangeTheExit) {
  for (const int second : {SIGTERM, SIGINT, SIGHUP}) {
    const auto run = [second] {
      int exit_code = 1;
      {
        TestDaemon daemon;
        daemon.in_loop_ = [&daemon] { daemon.Quit(); };
        exit_code = daemon.Run();
        raise(second);
      }
      std::_Exit(exit_code);
    };
    EXPECT_EXIT(run(), ::testing::ExitedWithCode(0), "");
  }
}

TEST(Daemon, TheFirstExitCodeCounts) {
  TestDaemon daemon;
  daemon.in_loop_ = [&daemon] {
    daemon.QuitWithExitCode(3);
    daemon.QuitWithExitCode(4);
    daemon.Quit();
  };
  EXPECT_EQ(daemon.Run(), 3);
}

TEST(Daemon, QuittingDuringStartupKeepsItsCode) {
  class Quitter : public TestDaemon {
   public:
    int OnInit() override {
      QuitWithExitCode(6);
      return 0;
    }
  };
  EXPECT_EQ(Quitter().Run(), 6);
}

TEST(Daemon, ShutdownMayChangeTheExitCode) {
  TestDaemon daemon;
  daemon.shutdown_code_ = 9;
  daemon.in_loop_ = [&daemon] { daemon.Quit(); };
  EXPECT_EQ(daemon.Run(), 9);
}

TEST(Daemon, TheSupervisorIsNotifiedOfReadinessAndStopping) {
  Supervisor supervisor;
  class Watched : public TestDaemon {
   public:
    explicit Watched(Supervisor* supervisor) : supervisor_(supervisor) {}
    int OnInit() override {
      Collect("init");
      return TestDaemon::OnInit();
    }
    void OnShutdown(int* exit_code) override {
      Collect("shutdown");
      TestDaemon::OnShutdown(exit_code);
    }
    void Collect(const std::string& when) {
      for (std::string& notice : supervisor_->TakeNotices())
        notices_.push_back(notice.append(" before ").append(when));
    }
    Supervisor* const supervisor_;
    std::vector<std::string> notices_;
  };
  Watched daemon(&supervisor);
  daemon.in_loop_ = [&daemon] {
    daemon.Collect("loop");
    daemon.Quit();
  };
  EXPECT_EQ(daemon.Run(), 0);
  daemon.Collect("end");
  EXPECT_THAT(daemon.notices_, ElementsAre("READY=1 before loop", "STOPPING=1 before end"));
}

TEST(Daemon, TheStatusIsSentToTheSupervisor) {
  PublishStatus("without a supervisor");
  Supervisor supervisor;
  PublishStatus("points recorded=1; token error=\"a b\"");
  EXPECT_THAT(supervisor.TakeNotices(),
              ElementsAre("STATUS=points recorded=1; token error=\"a b\""));
}

TEST(Daemon, TheLoopFeedsTheWatchdogFromReadinessOn) {
  Supervisor supervisor;
  setenv("WATCHDOG_USEC", "20000", 1);
  TestDaemon daemon;
  std::vector<std::string> notices;
  base::Callback<void()> until_fed_again = [&] {
    for (std::string& notice : supervisor.TakeNotices()) notices.push_back(std::move(notice));
    if (std::count(notices.begin(), notices.end(), "WATCHDOG=1") >= 3)
      daemon.Quit();
    else
      base::MessageLoop::Current()->PostTask(until_fed_again);
  };
  daemon.in_loop_ = until_fed_again;
  EXPECT_EQ(daemon.Run(), 0);
  unsetenv("WATCHDOG_USEC");
  EXPECT_THAT(notices, ElementsAre("READY=1", "WATCHDOG=1", "WATCHDOG=1", "WATCHDOG=1"));
}

TEST(Daemon, AWatchdogWithoutAPeriodIsLoggedAndNotFed) {
  for (const char* period : {"0", "", "-1", "soon"}) {
    Supervisor supervisor;
    setenv("WATCHDOG_USEC", period, 1);
    const base::LogCapture log;
    TestDaemon daemon;
    daemon.in_loop_ = [&daemon] { daemon.Quit(); };
    EXPECT_EQ(daemon.Run(), 0) << period;
    unsetenv("WATCHDOG_USEC");
    EXPECT_THAT(log.lines(), ElementsAre(StartsWith("WARNING Unable to feed the watchdog: ")));
    EXPECT_THAT(supervisor.TakeNotices(), ElementsAre("READY=1", "STOPPING=1")) << period;
  }
}

TEST(Daemon, AHandlerStaysUntilItReturnsTrue) {
  TestDaemon daemon;
  int calls = 0;
  daemon.RegisterHandler(SIGUSR1, [&](int signal) {
    EXPECT_EQ(signal, SIGUSR1);
    if (++calls < 3) {
      raise(SIGUSR1);
      return false;
    }
    daemon.Quit();
    return true;
  });
  EXPECT_TRUE(IsBlocked(SIGUSR1));
  daemon.in_loop_ = [] { raise(SIGUSR1); };
  EXPECT_EQ(daemon.Run(), 0);
  EXPECT_EQ(calls, 3);
  EXPECT_FALSE(IsBlocked(SIGUSR1));
}

TEST(Daemon, AHandlerMayReplaceItself) {
  TestDaemon daemon;
  daemon.RegisterHandler(SIGUSR1, [&daemon](int) {
    daemon.RegisterHandler(SIGUSR1, [&daemon](int) {
      daemon.QuitWithExitCode(2);
      return false;
    });
    raise(SIGUSR1);
    return false;
  });
  daemon.in_loop_ = [] { raise(SIGUSR1); };
  EXPECT_EQ(daemon.Run(), 2);
}

TEST(Daemon, AnUnregisteredSignalHasItsDefaultActionAgain) {
  TestDaemon daemon;
  daemon.RegisterHandler(SIGUSR1, [](int) { return false; });
  daemon.UnregisterHandler(SIGUSR1);
  EXPECT_FALSE(IsBlocked(SIGUSR1));
  EXPECT_EXIT(raise(SIGUSR1), ::testing::KilledBySignal(SIGUSR1), "");
}

TEST(Daemon, SignalsAreUnblockedAfterTheDaemonIsDestroyed) {
  {
    TestDaemon daemon;
    daemon.in_loop_ = [&daemon] { daemon.Quit(); };
    EXPECT_EQ(daemon.Run(), 0);
    EXPECT_TRUE(IsBlocked(SIGTERM));
  }
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) EXPECT_FALSE(IsBlocked(signal));
}

}  // namespace
}  // namespace kestle
