#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "client/testing/client_fixture.h"

namespace pelmor {
namespace {

using ::testing::AllOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;
using ::testing::Property;
using ::testing::SizeIs;
using ::testing::StartsWith;

using PelmorClient = ClientTest;

TEST_F(PelmorClient, AMetricIsSentWithItsLabelsAndTypedValue) {
  struct Case {
    Value value;
    const char* described;
  };
  const Case cases[] = {
      {true, "true"},
      {int8_t{-1}, "-1"},
      {7U, "7"},
      {std::numeric_limits<int64_t>::min(), "-9223372036854775808"},
      {std::numeric_limits<int64_t>::max(), "9223372036854775807"},
      {0.25F, "0.25"},
      {"text", "\"text\""},
      {std::string("größer"), "\"größer\""},
  };
  for (const Case& one : cases) {
    EXPECT_TRUE(client_->RecordMetric("up", {{"b", "2"}, {"a", ""}}, one.value).ok());
    EXPECT_THAT(daemon_->LastArguments("RecordMetric"),
                ElementsAre("\"up\"", R"({"a": "", "b": "2"})", one.described));
  }
}

TEST_F(PelmorClient, LogDataAreSentUnchanged) {
  EXPECT_TRUE(client_->RecordStructuredData("t/a", {0, 255, 65}).ok());
  EXPECT_TRUE(client_->RecordOfflineData("", {}).ok());
  EXPECT_THAT(daemon_->Calls(),
              ElementsAre(EndsWith(".RecordStructuredData(\"t/a\", [0, 255, 65])"),
                          EndsWith(".RecordOfflineData(\"\", [])")));
}

TEST_F(PelmorClient, AsyncRecordsArriveInOrderAndCallBackOnlyFromProcess) {
  const auto done = [this](const Status& status) { done_.push_back(status); };
  EXPECT_TRUE(client_->RecordMetricAsync("up", {}, 1, done).ok());
  EXPECT_TRUE(client_->RecordStructuredDataAsync("t", {1}, done).ok());
  EXPECT_TRUE(client_->RecordOfflineDataAsync("t", {2}, done).ok());
  EXPECT_TRUE(Record().ok());
  EXPECT_THAT(done_, IsEmpty());
  ProcessUntil(client_.get(), done_, 3);
  EXPECT_THAT(done_, Each(Property(&Status::ok, true)));
  EXPECT_THAT(daemon_->Calls(), ElementsAre(EndsWith(".RecordMetric(\"up\", {}, 1)"),
                                            EndsWith(".RecordStructuredData(\"t\", [1])"),
                                            EndsWith(".RecordOfflineData(\"t\", [2])"),
                                            EndsWith(".RecordMetric(\"up\", {}, true)")));
  EXPECT_FALSE(IsReadable(*client_)) << "with nothing left to do";
}

TEST_F(PelmorClient, ARecordWithoutACallbackIsSent) {
  EXPECT_TRUE(client_->RecordMetricAsync("up", {}, true).ok());
  client_.reset();
  client_ = std::make_unique<Client>();
  EXPECT_TRUE(Record().ok());
  EXPECT_EQ(daemon_->CallCount("RecordMetric"), 2);
}

struct BadText {
  const char* what;
  std::string text;
};
const BadText kBadTexts[] = {
    {"a zero byte", std::string("a\0b", 3)},
    {"an invalid byte", "\xff"},
    {"a continuation byte alone", "a\x80"},
    {"a truncated character", "\xe2\x82"},
    {"an interrupted character", "\xe2\x82z"},
    {"an overlong slash", "\xc0\xaf"},
    {"an overlong zero byte", "\xe0\x80\x80"},
    {"a surrogate", "\xed\xa0\x80"},
    {"a noncharacter", "\xef\xbf\xbf"},
    {"a noncharacter in the middle", "\xef\xb7\x90"},
    {"past the last character", "\xf4\x90\x80\x80"},
    {"a five-byte form", "\xf8\x88\x80\x80\x80"},
};

TEST_F(PelmorClient, ATextThatCannotBeSentIsAnInvalidArgument) {
  for (const auto& [what, text] : kBadTexts) {
    const Status statuses[] = {
        client_->RecordMetric(text, {}, 1),           client_->RecordMetric("n", {{text, "v"}}, 1),
        client_->RecordMetric("n", {{"k", text}}, 1), client_->RecordMetric("n", {}, text),
        client_->RecordStructuredData(text, {}),      client_->RecordOfflineData(text, {}),
    };
    for (const Status& status : statuses)
      EXPECT_EQ(status.code(), StatusCode::kInvalidArgument) << what;
    EXPECT_EQ(statuses[0].error_name(), "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_THAT(statuses[0].message(), StartsWith("The metric's name is not UTF-8"));
  }
  const Status status = client_->RecordMetricAsync(
      "\xff", {}, 1, [this](const Status& result) { done_.push_back(result); });
  EXPECT_EQ(status.code(), StatusCode::kInvalidArgument);
  client_->Process();
  EXPECT_THAT(done_, IsEmpty());
  EXPECT_THAT(daemon_->Calls(), IsEmpty());
}

std::string Utf8(uint32_t character) {
  const auto tail = [character](int shift) {
    return static_cast<char>(0x80U | ((character >> shift) & 0x3FU));
  };
  if (character < 0x80) return {static_cast<char>(character)};
  if (character < 0x800) return {static_cast<char>(0xC0U | character >> 6), tail(0)};
  if (character < 0x10000) return {static_cast<char>(0xE0U | character >> 12), tail(6), tail(0)};
  return {static_cast<char>(0xF0U | character >> 18), tail(12), tail(6), tail(0)};
}

TEST_F(PelmorClient, EveryAcceptedCharacterCanBeSent) {
  std::string all;
  for (uint32_t character = 1; character <= 0x10FFFF; ++character) {
    const bool surrogate = character >= 0xD800 && character <= 0xDFFF;
    const bool none =
        (character >= 0xFDD0 && character <= 0xFDEF) || (character & 0xFFFE) == 0xFFFE;
    if (!surrogate && !none) all += Utf8(character);
  }
  EXPECT_TRUE(client_->RecordMetric("n", {}, all).ok());
  EXPECT_EQ(daemon_->LastArguments("RecordMetric").at(2).size(), all.size() + 2);
}

TEST_F(PelmorClient, ARecordAboveTheLimitIsAnInvalidArgument) {
  const Bytes large(kMaxRecordBytes);
  const Status status = client_->RecordOfflineData("t", large);
  EXPECT_EQ(status.code(), StatusCode::kInvalidArgument);
  EXPECT_EQ(status.message(), "The record is too large");
}

TEST_F(PelmorClient, ARecordAboveTheBusLimitFailsAndTheNextCallReconnects) {
  const Bytes large(size_t{40} * 1024 * 1024);
  EXPECT_EQ(client_->RecordOfflineData("t", large).code(), StatusCode::kNotConnected);
  EXPECT_TRUE(Record().ok());
}

TEST_F(PelmorClient, WithoutABusEveryCallFails) {
  bus_->Stop();
  const Status status = client_->Connect();
  EXPECT_EQ(status.code(), StatusCode::kNotConnected);
  EXPECT_EQ(status.error_name(), "org.freedesktop.DBus.Error.NoServer");
  EXPECT_EQ(status.message(), "No connection to the system bus: Connection refused");
  EXPECT_EQ(Record().code(), StatusCode::kNotConnected);
  EXPECT_EQ(client_->RecordMetricAsync("up", {}, 1).code(), StatusCode::kNotConnected);
}

TEST_F(PelmorClient, ConnectingNeedsNoDaemon) {
  daemon_.reset();
  EXPECT_TRUE(client_->Connect().ok());
  EXPECT_TRUE(client_->Connect().ok()) << "again";
}

TEST_F(PelmorClient, WithoutADaemonEveryCallFails) {
  daemon_.reset();
  const Status status = Record();
  EXPECT_EQ(status.code(), StatusCode::kNoDaemon);
  EXPECT_EQ(status.error_name(), "org.freedesktop.DBus.Error.ServiceUnknown");
  RecordAsync();
  EXPECT_EQ(OnlyCode(), StatusCode::kNoDaemon);
}

TEST_F(PelmorClient, ErrorRepliesMapToStatusCodes) {
  struct Case {
    const char* error_name;
    StatusCode code;
  };
  const Case cases[] = {
      {"org.freedesktop.DBus.Error.AccessDenied", StatusCode::kRefused},
      {"org.freedesktop.DBus.Error.NameHasNoOwner", StatusCode::kNoDaemon},
      {"org.freedesktop.DBus.Error.Spawn.ChildExited", StatusCode::kNoDaemon},
      {"org.freedesktop.DBus.Error.NoReply", StatusCode::kNoDaemon},
      {"org.freedesktop.DBus.Error.InvalidArgs", StatusCode::kFailed},
      {"org.example.Other", StatusCode::kFailed},
  };
  for (const auto& [error_name, code] : cases) {
    daemon_->Refuse(error_name);
    const Status status = Record();
    EXPECT_EQ(status.code(), code) << error_name;
    EXPECT_EQ(status.error_name(), error_name);
    EXPECT_EQ(status.message(), "No");
    done_.clear();
    RecordAsync();
    EXPECT_EQ(OnlyCode(), code) << error_name;
  }
}

TEST_F(PelmorClient, ACallWithoutAReplyTimesOut) {
  daemon_->LeaveUnanswered();
  const Status status = client_->RecordMetric("up", {}, true, kShort);
  EXPECT_EQ(status.code(), StatusCode::kTimedOut);
  EXPECT_EQ(status.error_name(), "org.freedesktop.DBus.Error.Timeout");
  RecordAsync(kShort);
  EXPECT_EQ(OnlyCode(), StatusCode::kTimedOut);
  EXPECT_EQ(client_->RecordMetric("up", {}, true, Timeout(-1)).code(), StatusCode::kTimedOut);
}

TEST_F(PelmorClient, AReplyAfterTheTimeoutIsIgnored) {
  daemon_->LeaveUnanswered();
  RecordAsync(kShort);
  EXPECT_EQ(OnlyCode(), StatusCode::kTimedOut);
  daemon_->AnswerUnanswered();
  EXPECT_TRUE(client_->RecordOfflineData("t", {}).ok());
  client_->Process();
  EXPECT_THAT(done_, SizeIs(1));
}

TEST_F(PelmorClient, WhenTheDaemonExitsPendingCallsFail) {
  daemon_->LeaveUnanswered();
  RecordAsync();
  EXPECT_TRUE(client_->RecordOfflineData("t", {}).ok());
  daemon_.reset();
  EXPECT_EQ(OnlyCode(), StatusCode::kNoDaemon);
}

TEST_F(PelmorClient, ARestartedDaemonIsReached) {
  EXPECT_TRUE(Record().ok());
  daemon_.reset();
  EXPECT_EQ(Record().code(), StatusCode::kNoDaemon);
  daemon_ = std::make_unique<FakeDaemon>();
  EXPECT_TRUE(Record().ok());
}

TEST_F(PelmorClient, TheNextCallReconnectsToARestartedBus) {
  const int poll_fd = client_->PollFd();
  EXPECT_TRUE(Record().ok());
  daemon_.reset();
  RestartBus();
  daemon_ = std::make_unique<FakeDaemon>();
  EXPECT_TRUE(Record().ok());
  RecordAsync();
  EXPECT_EQ(OnlyCode(), StatusCode::kOk);
  EXPECT_EQ(client_->PollFd(), poll_fd);
}

TEST_F(PelmorClient, WhenTheBusStopsPendingCallsFail) {
  daemon_->LeaveUnanswered();
  for (int i = 0; i < 3; ++i) RecordAsync();
  EXPECT_TRUE(client_->RecordOfflineData("t", {}).ok());
  bus_->Stop();
  ProcessUntil(client_.get(), done_, 3);
  EXPECT_THAT(done_, AllOf(SizeIs(3), Each(Property(&Status::code, StatusCode::kNotConnected))));
  EXPECT_EQ(done_[0].error_name(), "org.freedesktop.DBus.Error.Disconnected");
  EXPECT_FALSE(IsReadable(*client_)) << "with nothing left to do";
}

TEST_F(PelmorClient, WhenTheBusStopsABlockingCallFails) {
  daemon_->LeaveUnanswered();
  std::thread stopper([this] {
    while (daemon_->CallCount("RecordMetric") == 0) std::this_thread::yield();
    bus_->Stop();
  });
  EXPECT_EQ(Record().code(), StatusCode::kNotConnected);
  stopper.join();
}

TEST_F(PelmorClient, ACallbackMayUseTheClient) {
  const auto record_more = [this](const Status& first) {
    done_.push_back(first);
    done_.push_back(client_->RecordMetric("second", {}, 2));
    const auto done = [this](const Status& third) { done_.push_back(third); };
    EXPECT_TRUE(client_->RecordMetricAsync("third", {}, 3, done).ok());
    client_->Process();
  };
  EXPECT_TRUE(client_->RecordMetricAsync("first", {}, 1, record_more).ok());
  ProcessUntil(client_.get(), done_, 3);
  EXPECT_THAT(done_, Each(Property(&Status::ok, true)));
  EXPECT_EQ(daemon_->CallCount("RecordMetric"), 3);
}

TEST_F(PelmorClient, ACallbackMayDestroyTheClientAndNoOtherRuns) {
  const auto destroy = [this](const Status& status) {
    done_.push_back(status);
    client_.reset();
  };
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(client_->RecordMetricAsync("up", {}, i, destroy).ok());
  EXPECT_TRUE(Record().ok());
  client_->Process();
  EXPECT_THAT(done_, SizeIs(1));
}

TEST_F(PelmorClient, NoCallbackRunsAfterDestruction) {
  RecordAsync();
  EXPECT_TRUE(Record().ok());
  client_.reset();
  EXPECT_THAT(done_, IsEmpty());
}

TEST_F(PelmorClient, ClientsOnOneThreadAreIndependent) {
  Client other;
  std::vector<Status> other_done;
  RecordAsync();
  const auto done = [&other_done](const Status& status) { other_done.push_back(status); };
  EXPECT_TRUE(other.RecordMetricAsync("up", {}, 1, done).ok());
  ProcessUntil(client_.get(), done_, 1);
  EXPECT_THAT(other_done, IsEmpty());
  client_.reset();
  ProcessUntil(&other, other_done, 1);
  EXPECT_TRUE(other_done[0].ok());
}

TEST_F(PelmorClient, AfterAForkTheCallsOfTheChildFailAndThoseOfTheParentDoNot) {
  EXPECT_TRUE(Record().ok());
  const pid_t child = fork();
  if (child == 0) {
    const auto fails = [](const Status& status) {
      return status.code() == StatusCode::kNotConnected;
    };
    const bool all_fail = fails(client_->RecordMetricAsync("up", {}, true)) && fails(Record()) &&
                          fails(client_->RecordMetricAsync("up", {}, true, [](const Status&) {}));
    _exit(all_fail ? EXIT_SUCCESS : EXIT_FAILURE);
  }
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, EXIT_SUCCESS);
  RecordAsync();
  EXPECT_EQ(OnlyCode(), StatusCode::kOk);
  EXPECT_TRUE(client_->Flush().ok());
}

TEST_F(PelmorClient, EachThreadMayHaveAClient) {
  constexpr int kThreads = 4;
  constexpr int kRecords = 50;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i)
    threads.emplace_back([] {
      Client client;
      std::vector<Status> done;
      for (int j = 0; j < kRecords; ++j) {
        EXPECT_TRUE(client.RecordMetric("up", {}, j).ok());
        const auto keep = [&done](const Status& status) { done.push_back(status); };
        EXPECT_TRUE(client.RecordMetricAsync("up", {}, j, keep).ok());
      }
      ProcessUntil(&client, done, kRecords);
      EXPECT_THAT(done, Each(Property(&Status::ok, true)));
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(daemon_->CallCount("RecordMetric"), 2 * kThreads * kRecords);
}

}  // namespace
}  // namespace pelmor
