#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "base/logging.h"
#include "base/scoped_fd.h"
#include "base/testing/fake_clock.h"
#include "base/testing/scoped_root.h"

namespace base {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;

// The limit of a test whose logging blocks.
constexpr unsigned kAlarmSeconds = 20;
constexpr int kTooManyLines = 3000;
// In lines of the largest size, several times the capacity of a pipe.
constexpr int kTooManyLongLines = 64;
constexpr uid_t kAnotherUser = 12345;

// Reads until it would block.
std::string Drain(int fd) {
  std::string text;
  char chunk[4096];
  pollfd ready{fd, POLLIN, 0};
  while (poll(&ready, 1, 0) > 0) {
    const ssize_t count = read(fd, chunk, sizeof(chunk));
    if (count <= 0) break;
    text.append(chunk, static_cast<size_t>(count));
  }
  return text;
}

int CountOf(const std::string& wanted, const std::string& text) {
  int count = 0;
  for (size_t at = text.find(wanted); at != std::string::npos; at = text.find(wanted, at + 1))
    ++count;
  return count;
}

void LogTooMuch() {
  for (int i = 0; i < kTooManyLines; ++i) LOG(INFO) << "filler " << std::string(100, 'x');
}

// Runs `action` in a child process with the same standard error.
pid_t Fork(const std::function<void()>& action) {
  const pid_t child = fork();
  if (child != 0) return child;
  alarm(kAlarmSeconds);
  action();
  std::_Exit(0);
}

int StatusOf(pid_t child) {
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return status;
}

// 'R': running or runnable.
char StateOf(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/stat");
  std::string text;
  std::getline(file, text);
  const size_t name_end = text.rfind(')');
  return name_end == std::string::npos ? '?' : text[name_end + 2];
}

// Standard error is one end of a pipe or socket pair; the test has the other end.
class StalledStderr : public testing::Test {
 protected:
  StalledStderr() : saved_(dup(STDERR_FILENO)) { alarm(kAlarmSeconds); }
  ~StalledStderr() override {
    dup2(saved_.get(), STDERR_FILENO);
    InitLogging("base_test", {});
    alarm(0);
  }

  void UsePair(const std::function<int(int*)>& make_pair) {
    int ends[2];
    ASSERT_EQ(make_pair(ends), 0);
    reader_ = ScopedFd(ends[0]);
    const ScopedFd writer(ends[1]);
    ASSERT_EQ(dup2(writer.get(), STDERR_FILENO), STDERR_FILENO);
    InitLogging("base_test", {.with_header = false});
  }
  void UsePipe() {
    UsePair([](int* ends) { return pipe(ends); });
  }
  void UseSocket(int type) {
    UsePair([=](int* ends) { return socketpair(AF_UNIX, type, 0, ends); });
  }

  // Fills the output, makes room and logs more lines.
  void ExpectLossReported() {
    LogTooMuch();
    const std::string before = Drain(reader_.get());
    const int written = CountOf("x\n", before);
    EXPECT_GT(written, 10);
    EXPECT_LT(written, kTooManyLines);
    LOG(INFO) << "room again";
    LOG(INFO) << "and still";
    const std::string lost = std::to_string(kTooManyLines - written);
    EXPECT_THAT(Drain(reader_.get()), MatchesRegex("\n?" + lost +
                                                   " log lines were lost\n"
                                                   "room again\nand still\n"));
  }

  ScopedFd saved_;
  ScopedFd reader_;
};

TEST_F(StalledStderr, AFullPipeLosesLinesAndTheNextLineReportsTheirNumber) {
  UsePipe();
  ExpectLossReported();
}

TEST_F(StalledStderr, AFullStreamSocketLosesLines) {
  UseSocket(SOCK_STREAM);
  ExpectLossReported();
}

TEST_F(StalledStderr, AFullDatagramSocketLosesLines) {
  UseSocket(SOCK_DGRAM);
  ExpectLossReported();
}

TEST_F(StalledStderr, AStoppedTerminalLosesLines) {
  ScopedFd terminal;
  UsePair([&](int* ends) {
    ends[0] = posix_openpt(O_RDWR | O_NOCTTY);
    if (ends[0] < 0 || grantpt(ends[0]) != 0 || unlockpt(ends[0]) != 0) return -1;
    ends[1] = open(ptsname(ends[0]), O_RDWR | O_NOCTTY);
    return ends[1] < 0 ? -1 : 0;
  });
  LogTooMuch();
  EXPECT_THAT(Drain(reader_.get()), HasSubstr("filler"));
  LOG(INFO) << "room again";
  EXPECT_THAT(Drain(reader_.get()), MatchesRegex("(\r\n)?[0-9]+ log lines were lost\r\n"
                                                 "room again\r\n"));
}

TEST_F(StalledStderr, APipeThatCannotBeReopenedDoesNotBlock) {
  UsePipe();
  const pid_t child = Fork([this] {
    if (fchmod(STDERR_FILENO, 0) != 0) std::_Exit(2);
    if (geteuid() == 0 && setresuid(kAnotherUser, kAnotherUser, kAnotherUser) != 0) std::_Exit(3);
    if (ScopedFd(open("/proc/self/fd/2", O_WRONLY)).is_valid()) std::_Exit(4);
    for (int i = 0; i < kTooManyLongLines; ++i) LOG(INFO) << std::string(kMaxLogMessageBytes, 'x');
    Drain(reader_.get());
    LOG(INFO) << "room again";
  });
  EXPECT_EQ(StatusOf(child), 0);
  EXPECT_THAT(Drain(reader_.get()), MatchesRegex("\n?[0-9]+ log lines were lost\nroom again\n"));
}

TEST_F(StalledStderr, EndsATruncatedLineBeforeTheNext) {
  UsePipe();
  ASSERT_EQ(fcntl(reader_.get(), F_SETPIPE_SZ, 2 * 4096), 2 * 4096);
  LOG(INFO) << std::string(kMaxLogMessageBytes, 'z');
  LOG(INFO) << "next";
  EXPECT_THAT(Drain(reader_.get()), MatchesRegex("z+"));
  LOG(INFO) << "later";
  EXPECT_EQ(Drain(reader_.get()), "\n2 log lines were lost\nlater\n");
}

TEST_F(StalledStderr, TheSharedFileDescriptionStaysBlocking) {
  UsePipe();
  LOG(INFO) << "a line";
  EXPECT_EQ(fcntl(STDERR_FILENO, F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(StalledStderr, AFatalLineWaitsForAtMostASecond) {
  UsePipe();
  const auto start = std::chrono::steady_clock::now();
  const pid_t child = Fork([] {
    LogTooMuch();
    LOG(FATAL) << "the end";
  });
  const int status = StatusOf(child);
  const auto took = std::chrono::steady_clock::now() - start;
  // Without a limit, the alarm would have killed it.
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
  EXPECT_GE(took, std::chrono::milliseconds(990));
}

TEST_F(StalledStderr, AFatalLineIsWrittenIfThereIsRoomInTime) {
  UsePipe();
  const pid_t child = Fork([] {
    LogTooMuch();
    LOG(FATAL) << "the end";
  });
  // The child sleeps only in the fatal line.
  while (StateOf(child) == 'R') continue;
  std::string read = Drain(reader_.get());
  StatusOf(child);
  read += Drain(reader_.get());
  // An emulator adds a line about the abort.
  EXPECT_THAT(read, testing::HasSubstr(" log lines were lost\nthe end\n"));
}

// The system log is a socket in a temporary folder.
class SystemLogTest : public testing::Test {
 protected:
  SystemLogTest() : path_(root_.Real("/log")) {
    alarm(kAlarmSeconds);
    InitLogging("ap-pelmor",
                {.to_syslog = true, .syslog_socket = path_.c_str(), .to_stderr = false});
  }
  ~SystemLogTest() override {
    InitLogging("base_test", {});
    alarm(0);
  }

  void Listen() {
    unlink(path_.c_str());
    log_ = ScopedFd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    path_.copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(bind(log_.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  }
  // The received records, from the end of their header.
  [[nodiscard]] std::vector<std::string> Messages() const {
    std::vector<std::string> messages;
    char record[16384];
    for (;;) {
      const ssize_t size = recv(log_.get(), record, sizeof(record), MSG_DONTWAIT);
      if (size < 0) return messages;
      const std::string text(record, static_cast<size_t>(size));
      messages.push_back(text.substr(std::min(text.find("] "), text.size())));
    }
  }

  ScopedRoot root_;
  const std::string path_;
  ScopedFd log_;
};

TEST_F(SystemLogTest, ARecordHasPriorityLocalTimeProcessSeverityAndSourceLine) {
  Listen();
  const FakeClock clock(Time::FromTimeT(1700000000));
  setenv("TZ", "XXX-2", 1);
  tzset();
  LOG(WARNING) << "Trouble: " << 42;
  unsetenv("TZ");
  tzset();
  char record[1024];
  const ssize_t size = recv(log_.get(), record, sizeof(record), MSG_DONTWAIT);
  ASSERT_GT(size, 0);
  EXPECT_THAT(std::string(record, static_cast<size_t>(size)),
              MatchesRegex("<28>Nov 15 00:13:20 ap-pelmor\\[[0-9]+\\]: "
                           "WARNING log_outputs_test\\.cc:[0-9]+\\] Trouble: 42"));
}

TEST_F(SystemLogTest, AStoppedSystemLogLosesLinesAndTheNextLineReportsTheirNumber) {
  Listen();
  LogTooMuch();
  const size_t written = Messages().size();
  EXPECT_GT(written, 5u);
  EXPECT_LT(written, size_t{kTooManyLines});
  LOG(INFO) << "room again";
  EXPECT_THAT(Messages(),
              ElementsAre("] " + std::to_string(kTooManyLines - written) + " log lines were lost",
                          "] room again"));
}

TEST_F(SystemLogTest, LinesBeforeItListensAreCountedAsLost) {
  LOG(INFO) << "too early";
  Listen();
  LOG(INFO) << "in time";
  EXPECT_THAT(Messages(), ElementsAre("] 1 log lines were lost", "] in time"));
}

TEST_F(SystemLogTest, ReconnectsAfterARestartOfTheSystemLog) {
  Listen();
  LOG(INFO) << "first";
  EXPECT_THAT(Messages(), ElementsAre("] first"));
  Listen();
  LOG(INFO) << "second";
  EXPECT_THAT(Messages(), ElementsAre("] second"));
}

}  // namespace
}  // namespace base
