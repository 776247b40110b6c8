// The C interface: what it adds to the C++ one, whose rules the other tests cover.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <limits>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "base/message_loop.h"
#include "base/scoped_fd.h"
#include "base/testing/run_until.h"
#include "client/testing/client_fixture.h"
#include "pelmor/pelmor.h"

namespace pelmor {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;

// The binary interface of libpelmor.so.0, which does not change. Its symbols are in
// packaging/debian/libpelmor0.symbols.
using CClient = pelmor_client*;
using CLabels = const pelmor_label*;
using Text = const char*;

static_assert(sizeof(pelmor_label) == 2 * sizeof(void*));
static_assert(offsetof(pelmor_label, name) == 0);
static_assert(offsetof(pelmor_label, value) == sizeof(void*));
static_assert(std::is_same_v<decltype(pelmor_label::name), Text>);
static_assert(std::is_same_v<decltype(pelmor_label::value), Text>);

template <auto* kFunction, typename Signature>
constexpr bool kIs = std::is_same_v<decltype(*kFunction), Signature&>;

static_assert(kIs<pelmor_version, Text()>);
static_assert(kIs<pelmor_open, int(uint32_t, CClient*)>);
static_assert(kIs<pelmor_close, void(CClient)>);
static_assert(kIs<pelmor_message, Text(const pelmor_client*)>);
static_assert(kIs<pelmor_connect, int(CClient)>);
static_assert(kIs<pelmor_record_bool, int(CClient, Text, CLabels, size_t, bool)>);
static_assert(kIs<pelmor_record_int64, int(CClient, Text, CLabels, size_t, int64_t)>);
static_assert(kIs<pelmor_record_double, int(CClient, Text, CLabels, size_t, double)>);
static_assert(kIs<pelmor_record_string, int(CClient, Text, CLabels, size_t, Text)>);
static_assert(kIs<pelmor_record_structured_data, int(CClient, Text, const void*, size_t)>);
static_assert(kIs<pelmor_record_offline_data, int(CClient, Text, const void*, size_t)>);
static_assert(kIs<pelmor_flush, int(CClient, uint32_t)>);
static_assert(kIs<pelmor_lost_records, uint64_t(const pelmor_client*)>);
static_assert(kIs<pelmor_poll_fd, int(const pelmor_client*)>);
static_assert(kIs<pelmor_process, int(CClient)>);

// The header states them as numbers.
static_assert(kDefaultTimeout == Timeout(PELMOR_DEFAULT_TIMEOUT_MS));
static_assert(kWindowRecords == 64);
static_assert(kMaxQueuedRecords == 1024);
static_assert(kMaxQueuedBytes == size_t{4} * 1024 * 1024);
static_assert(kMaxRecordBytes == size_t{60} * 1024 * 1024);

struct Closer {
  void operator()(pelmor_client* client) const { pelmor_close(client); }
};
using Owned = std::unique_ptr<pelmor_client, Closer>;

const auto kFlush = EndsWith(".Introspect()");

// While it lives, the process can open no descriptor, except for those that `Free` closes.
class DescriptorLimit {
 public:
  DescriptorLimit() {
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before_), 0);
    const rlimit low = {kLimit, before_.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    for (int fd = dup(0); fd >= 0; fd = dup(0)) taken_.emplace_back(fd);
  }
  ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &before_); }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;

  void Free(size_t count) { taken_.resize(taken_.size() - count); }

 private:
  static constexpr rlim_t kLimit = 256;

  rlimit before_ = {};
  std::vector<base::ScopedFd> taken_;
};

// The descriptors of the process that it passes to the programs that it executes.
std::set<int> InheritedDescriptors() {
  constexpr int kMost = 1024;
  std::set<int> inherited;
  for (int fd = 0; fd < kMost; ++fd) {
    const int flags = fcntl(fd, F_GETFD);
    if (flags >= 0 && (flags & FD_CLOEXEC) == 0) inherited.insert(fd);
  }
  return inherited;
}

Owned Open(uint32_t queue_wait_ms = 0) {
  pelmor_client* client = nullptr;
  EXPECT_EQ(pelmor_open(queue_wait_ms, &client), 0);
  return Owned(client);
}

class CApi : public ClientTest {
 protected:
  CClient c() { return c_client_.get(); }
  int RecordC(int64_t value = 1) { return pelmor_record_int64(c(), "up", nullptr, 0, value); }
  int FlushC(uint32_t timeout_ms = kLongMs) { return pelmor_flush(c(), timeout_ms); }
  // The sanitizer needs descriptors to check the first object of a class.
  void UseAnother() {
    EXPECT_EQ(RecordC(), 0);
    EXPECT_EQ(FlushC(), 0);
    c_client_ = Open();
  }
  std::string Message() { return pelmor_message(c()); }

  Owned c_client_ = Open();
};

TEST_F(CApi, EachTypeOfValueIsSentWithItsLabels) {
  const pelmor_label labels[] = {{"b", "2"}, {"a", ""}};
  EXPECT_EQ(pelmor_record_bool(c(), "n", labels, 2, true), 0);
  EXPECT_EQ(pelmor_record_int64(c(), "n", nullptr, 0, std::numeric_limits<int64_t>::min()), 0);
  EXPECT_EQ(pelmor_record_double(c(), "n", labels, 1, 0.25), 0);
  for (const double value : {std::numeric_limits<double>::quiet_NaN(), -HUGE_VAL})
    EXPECT_EQ(pelmor_record_double(c(), "n", nullptr, 0, value), 0);
  EXPECT_EQ(pelmor_record_string(c(), "n", labels, 0, "größer"), 0);
  EXPECT_EQ(FlushC(), 0);
  EXPECT_THAT(daemon_->Calls(),
              ElementsAre(EndsWith(R"(.RecordMetric("n", {"a": "", "b": "2"}, true))"),
                          EndsWith(R"(.RecordMetric("n", {}, -9223372036854775808))"),
                          EndsWith(R"(.RecordMetric("n", {"b": "2"}, 0.25))"),
                          EndsWith(R"(.RecordMetric("n", {}, nan))"),
                          EndsWith(R"(.RecordMetric("n", {}, -inf))"),
                          EndsWith(R"(.RecordMetric("n", {}, "größer"))"), kFlush));
  EXPECT_EQ(pelmor_lost_records(c()), 0U);
}

TEST_F(CApi, LogDataAreSentUnchanged) {
  const uint8_t data[] = {0, 255, 65};
  EXPECT_EQ(pelmor_record_structured_data(c(), "t/a", data, sizeof data), 0);
  EXPECT_EQ(pelmor_record_offline_data(c(), "", nullptr, 0), 0);
  EXPECT_EQ(FlushC(), 0);
  EXPECT_THAT(daemon_->Calls(),
              ElementsAre(EndsWith(".RecordStructuredData(\"t/a\", [0, 255, 65])"),
                          EndsWith(".RecordOfflineData(\"\", [])"), kFlush));
}

TEST_F(CApi, ArgumentsAreCopiedBeforeACallReturns) {
  daemon_->LeaveUnanswered();
  for (size_t i = 0; i < 2 * kWindowRecords; ++i) ASSERT_EQ(RecordC(), 0);
  // These are queued.
  std::string text = "before";
  const pelmor_label label = {text.c_str(), text.c_str()};
  EXPECT_EQ(pelmor_record_string(c(), text.c_str(), &label, 1, text.c_str()), 0);
  EXPECT_EQ(pelmor_record_offline_data(c(), text.c_str(), text.data(), 1), 0);
  text.assign("after!");
  daemon_->AnswerAll();
  EXPECT_EQ(FlushC(), 0);
  EXPECT_THAT(daemon_->LastArguments("RecordMetric"),
              ElementsAre("\"before\"", R"({"before": "before"})", "\"before\""));
  EXPECT_THAT(daemon_->LastArguments("RecordOfflineData"), ElementsAre("\"before\"", "[98]"));
}

TEST_F(CApi, AnInvalidArgumentIsReportedAndNotSent) {
  constexpr size_t kTooLarge = kMaxRecordBytes + 1;
  const pelmor_label twice[] = {{"a", "1"}, {"a", "2"}};
  const pelmor_label twice_not_text[] = {{"\n\xff", "1"}, {"\n\xff", "2"}};
  const pelmor_label no_name = {nullptr, ""};
  const pelmor_label no_value = {"", nullptr};
  const auto expect_invalid = [this](int result, const std::string& message) {
    EXPECT_EQ(result, -EINVAL);
    EXPECT_EQ(Message(), message);
  };
  expect_invalid(pelmor_record_bool(c(), nullptr, nullptr, 0, true), "The metric's name is null");
  expect_invalid(pelmor_record_int64(c(), "n", nullptr, 1, 1), "The labels are null");
  expect_invalid(pelmor_record_int64(c(), "n", twice, kTooLarge, 1), "The record is too large");
  expect_invalid(pelmor_record_int64(c(), "n", twice, 2, 1), "The label 'a' is given twice");
  expect_invalid(pelmor_record_int64(c(), "n", twice_not_text, 2, 1),
                 R"(The label '\n\xff' is given twice)");
  expect_invalid(pelmor_record_double(c(), "n", &no_name, 1, 1), "A label's name or value is null");
  expect_invalid(pelmor_record_double(c(), "n", &no_value, 1, 1),
                 "A label's name or value is null");
  expect_invalid(pelmor_record_string(c(), "n", nullptr, 0, nullptr), "The metric's value is null");
  expect_invalid(pelmor_record_string(c(), "n", nullptr, 0, "\xff"),
                 "The metric's value is not UTF-8 text that D-Bus carries");
  expect_invalid(pelmor_record_offline_data(c(), nullptr, "", 0), "The type URL is null");
  expect_invalid(pelmor_record_offline_data(c(), "t", nullptr, 1), "The data are null");
  expect_invalid(pelmor_record_structured_data(c(), "t", "", kTooLarge), "The record is too large");
  EXPECT_THAT(daemon_->Calls(), IsEmpty());
  EXPECT_EQ(RecordC(), 0);
  EXPECT_EQ(Message(), "The record is too large") << "still of the last failure";
}

TEST_F(CApi, ANullClientIsAnInvalidArgument) {
  const int results[] = {
      pelmor_open(0, nullptr),
      pelmor_connect(nullptr),
      pelmor_record_bool(nullptr, "n", nullptr, 0, true),
      pelmor_record_int64(nullptr, "n", nullptr, 0, 1),
      pelmor_record_double(nullptr, "n", nullptr, 0, 1),
      pelmor_record_string(nullptr, "n", nullptr, 0, nullptr),
      pelmor_record_structured_data(nullptr, "t", nullptr, 0),
      pelmor_record_offline_data(nullptr, "t", nullptr, 0),
      pelmor_flush(nullptr, 1),
      pelmor_poll_fd(nullptr),
      pelmor_process(nullptr),
  };
  for (const int result : results) EXPECT_EQ(result, -EINVAL);
  EXPECT_STREQ(pelmor_message(nullptr), "There is no client");
  EXPECT_EQ(pelmor_lost_records(nullptr), 0U);
  pelmor_close(nullptr);
}

TEST_F(CApi, AFailureHasAnErrnoAndAMessage) {
  EXPECT_EQ(Message(), "");
  const std::pair<const char*, int> cases[] = {
      {"org.freedesktop.DBus.Error.ServiceUnknown", -ESRCH},
      {"org.freedesktop.DBus.Error.AccessDenied", -EACCES},
      {"org.example.Other", -EIO},
  };
  for (const auto& [error_name, result] : cases) {
    daemon_->Refuse(error_name);
    // The first record of a client requests a reply.
    c_client_ = Open();
    EXPECT_EQ(RecordC(), 0);
    EXPECT_EQ(FlushC(), result) << error_name;
    EXPECT_EQ(Message(), "No");
    EXPECT_EQ(pelmor_lost_records(c()), 1U);
  }
  bus_->Stop();
  c_client_ = Open();
  EXPECT_EQ(pelmor_connect(c()), -ENOTCONN);
  EXPECT_EQ(Message(), "No connection to the system bus: Connection refused");
}

TEST_F(CApi, WhileTheDaemonHangsAFullQueueIsReportedAndLaterSent) {
  daemon_->LeaveUnanswered();
  constexpr int64_t kMostAccepted = 2 * kWindowRecords + kMaxQueuedRecords;
  for (int64_t i = 0; i < kMostAccepted; ++i) ASSERT_EQ(RecordC(i), 0) << i;
  EXPECT_EQ(RecordC(), -EAGAIN);
  EXPECT_EQ(Message(), "The daemon is behind: the queue is full");
  EXPECT_EQ(FlushC(/*timeout_ms=*/0), -ETIMEDOUT);
  daemon_->AnswerAll();
  // The caller's event loop, until there is room.
  int result = -EAGAIN;
  while (result == -EAGAIN) {
    pollfd polled = {pelmor_poll_fd(c()), POLLIN, 0};
    ASSERT_EQ(poll(&polled, 1, kLongMs), 1);
    EXPECT_EQ(pelmor_process(c()), 0);
    result = RecordC();
  }
  EXPECT_EQ(result, 0);
  EXPECT_EQ(FlushC(), 0);
  EXPECT_EQ(daemon_->CallCount("RecordMetric"), kMostAccepted + 1);
}

TEST_F(CApi, ProcessingAloneSendsTheQueue) {
  daemon_->LeaveUnanswered();
  constexpr int kRecords = 500;
  for (int i = 0; i < kRecords; ++i) ASSERT_EQ(RecordC(i), 0);
  daemon_->AnswerAll();
  base::MessageLoop loop;
  EXPECT_TRUE(base::RunUntil([&] {
    pollfd polled = {pelmor_poll_fd(c()), POLLIN, 0};
    if (poll(&polled, 1, /*timeout=*/0) == 1) {
      EXPECT_EQ(pelmor_process(c()), 0);
    }
    return daemon_->CallCount("RecordMetric") == kRecords;
  }));
}

TEST_F(CApi, AFlushWaitsAsLongAsItsCallerSays) {
  daemon_->LeaveUnanswered();
  for (size_t i = 0; i < 2 * kWindowRecords; ++i) ASSERT_EQ(RecordC(), 0);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(FlushC(/*timeout_ms=*/0), -ETIMEDOUT);
  EXPECT_EQ(Message(), "The daemon did not reply in time");
  EXPECT_LT(std::chrono::steady_clock::now() - start, kDefaultTimeout);
}

TEST_F(CApi, ConnectingNeedsNoDaemon) {
  daemon_.reset();
  EXPECT_EQ(pelmor_connect(c()), 0);
  EXPECT_EQ(RecordC(), 0);
  EXPECT_EQ(FlushC(), -ESRCH);
}

TEST_F(CApi, ARecordWaitsForRoomAsLongAsTheClientWasOpenedFor) {
  c_client_ = Open(kLongMs);
  for (int i = 0; i < 4000; ++i) ASSERT_EQ(RecordC(i), 0) << i;
  EXPECT_EQ(FlushC(), 0);
  EXPECT_EQ(daemon_->CallCount("RecordMetric"), 4000);
}

TEST_F(CApi, ClosingSendsTheQueuedRecords) {
  daemon_->LeaveUnanswered();
  constexpr int kRecords = 1000;
  for (int i = 0; i < kRecords; ++i) ASSERT_EQ(RecordC(i), 0);
  c_client_.reset();
  base::MessageLoop loop;
  EXPECT_TRUE(base::RunUntil([this] { return daemon_->CallCount("RecordMetric") == kRecords; }));
}

TEST_F(CApi, OpeningWithTooFewDescriptorsFails) {
  UseAnother();
  pelmor_client* refused = c();
  DescriptorLimit limit;
  for (int free = 0; free < 3; ++free) {
    EXPECT_EQ(pelmor_open(0, &refused), -EMFILE) << free;
    EXPECT_EQ(refused, nullptr);
    limit.Free(1);
  }
  EXPECT_NE(Open(), nullptr);
}

TEST_F(CApi, WithTooFewDescriptorsAnOpenClientDoesNotConnect) {
  // Versions of libsystemd need different numbers.
  constexpr int kMostNeeded = 8;
  UseAnother();
  DescriptorLimit limit;
  int free = 0;
  for (int result = RecordC(); result != 0 && free < kMostNeeded; result = RecordC()) {
    EXPECT_EQ(result, -ENOTCONN) << free;
    EXPECT_EQ(Message(), "No connection to the system bus: Too many open files") << free;
    limit.Free(1);
    ++free;
  }
  EXPECT_GE(free, 1);
  EXPECT_LT(free, kMostNeeded);
  EXPECT_EQ(FlushC(), 0);
}

TEST_F(CApi, AClientFailsInAForkedChildAndGoesOnInTheParent) {
  EXPECT_EQ(RecordC(), 0);
  const pid_t child = fork();
  if (child == 0) {
    const bool failed =
        RecordC() == -ENOTCONN && FlushC() == -ENOTCONN && pelmor_connect(c()) == -ENOTCONN;
    // It needs no connection.
    const bool processed = pelmor_process(c()) == 0;
    pelmor_close(c_client_.release());
    _exit(failed && processed ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(RecordC(), 0);
  EXPECT_EQ(FlushC(), 0);
  EXPECT_EQ(daemon_->CallCount("RecordMetric"), 2);
}

TEST_F(CApi, TheDescriptorsOfAClientCloseInExec) {
  c_client_.reset();
  const std::set<int> before = InheritedDescriptors();
  c_client_ = Open();
  EXPECT_EQ(RecordC(), 0);
  EXPECT_EQ(FlushC(), 0);
  EXPECT_EQ(InheritedDescriptors(), before);
}

TEST_F(CApi, ThreadsMayUseAClientInTurn) {
  std::thread([this] {
    for (int i = 0; i < 200; ++i) EXPECT_EQ(RecordC(i), 0);
  }).join();
  EXPECT_EQ(FlushC(), 0);
  EXPECT_EQ(daemon_->CallCount("RecordMetric"), 200);
  std::thread([this] {
    EXPECT_EQ(pelmor_process(c()), 0);
    c_client_.reset();
  }).join();
}

TEST_F(CApi, ARecordAboveTheBusLimitIsLostWithTheConnection) {
  const std::vector<uint8_t> data(size_t{40} * 1024 * 1024);
  EXPECT_EQ(pelmor_record_offline_data(c(), "t", data.data(), data.size()), 0);
  EXPECT_EQ(FlushC(), -ENOTCONN);
  EXPECT_EQ(Message(), "The connection to the system bus was lost");
  EXPECT_EQ(pelmor_lost_records(c()), 1U);
  EXPECT_EQ(RecordC(), 0);
  EXPECT_EQ(FlushC(), 0);
}

TEST_F(CApi, TheVersionIsThatOfTheBuild) { EXPECT_STREQ(pelmor_version(), PELMOR_VERSION); }

}  // namespace
}  // namespace pelmor
