// Flow control: windows, the queue, and what happens to records without a callback.
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/message_loop.h"
#include "base/testing/run_until.h"
#include "client/testing/client_fixture.h"

namespace pelmor {
namespace {

using ::testing::AllOf;
using ::testing::Each;
using ::testing::EndsWith;
using ::testing::IsEmpty;
using ::testing::Property;
using ::testing::SizeIs;

constexpr int kWindow = static_cast<int>(kWindowRecords);
constexpr int kMostUnconfirmed = 2 * kWindow;
constexpr int kMostAccepted = kMostUnconfirmed + static_cast<int>(kMaxQueuedRecords);
constexpr Timeout kLong{kLongMs};

class ClientFlow : public ClientTest {
 protected:
  // Records `count` numbers one-way, from 0.
  void RecordOneWay(int count) {
    for (int i = 0; i < count; ++i)
      ASSERT_EQ(client_->RecordMetricAsync("n", {}, i).code(), StatusCode::kOk) << i;
  }
  int Received() { return daemon_->CallCount("RecordMetric"); }
  // Acts as the caller's event loop until the daemon has received so many records.
  void ProcessUntilReceived(int count) {
    EXPECT_TRUE(base::RunUntil([&] {
      if (IsReadable(*client_)) client_->Process();
      return Received() >= count;
    }));
  }
  // The bus has passed on all that was sent before: it is asked twice, over another connection.
  void Settle() {
    Client other;
    for (int i = 0; i < 2; ++i) EXPECT_TRUE(other.RecordOfflineData("t", {}).ok());
  }
  void ExpectNumbers(int count) {
    const std::vector<std::string> calls = daemon_->Calls();
    int next = 0;
    for (const std::string& call : calls) {
      if (call.find(".RecordMetric(\"n\"") == std::string::npos) continue;
      EXPECT_THAT(call, EndsWith(", " + std::to_string(next) + ")"));
      ++next;
    }
    EXPECT_EQ(next, count);
  }

  // Of the test, not of the client.
  base::MessageLoop loop_;
};

TEST_F(ClientFlow, ABurstArrivesCompletelyAndInOrder) {
  RecordOneWay(1000);
  EXPECT_TRUE(client_->Flush(kLong).ok());
  ExpectNumbers(1000);
  EXPECT_EQ(client_->LostRecords(), 0U);
}

TEST_F(ClientFlow, TheFirstOneWayRecordAndTheLastOfEachWindowRequestAReply) {
  RecordOneWay(1 + 3 * kWindow);
  EXPECT_TRUE(client_->Flush(kLong).ok());
  EXPECT_EQ(daemon_->RequestedReplies("RecordMetric"), 1 + 3);
}

TEST_F(ClientFlow, ACallWithACallbackConfirmsTheRecordsBeforeIt) {
  RecordOneWay(kWindow);
  RecordAsync();
  RecordOneWay(kWindow - 1);
  EXPECT_TRUE(client_->Flush(kLong).ok());
  EXPECT_EQ(daemon_->RequestedReplies("RecordMetric"), 2);
}

TEST_F(ClientFlow, AtMostTwoWindowsAreUnconfirmedAndTheRestIsQueued) {
  daemon_->LeaveUnanswered();
  RecordOneWay(500);
  ProcessUntilReceived(kMostUnconfirmed);
  Settle();
  EXPECT_EQ(Received(), kMostUnconfirmed);
  daemon_->AnswerAll();
  ProcessUntilReceived(500);
  ExpectNumbers(500);
}

TEST_F(ClientFlow, AWindowAlsoEndsByItsBytes) {
  const Bytes half(kWindowBytes / 2);
  EXPECT_TRUE(client_->RecordMetric("up", {}, 1).ok());
  for (int i = 0; i < 4; ++i) EXPECT_TRUE(client_->RecordOfflineDataAsync("t", half).ok());
  EXPECT_TRUE(client_->Flush(kLong).ok());
  EXPECT_EQ(daemon_->RequestedReplies("RecordOfflineData"), 2);
}

TEST_F(ClientFlow, OfLargeRecordsTwoWindowsOfBytesAreUnconfirmed) {
  daemon_->LeaveUnanswered();
  const std::string text(kWindowBytes, 'x');
  for (int i = 0; i < 4; ++i) EXPECT_TRUE(client_->RecordMetricAsync("n", {}, text).ok());
  ProcessUntilReceived(2);
  Settle();
  EXPECT_EQ(Received(), 2);
  daemon_->AnswerAll();
  EXPECT_TRUE(client_->Flush(kLong).ok());
  EXPECT_EQ(Received(), 4);
}

TEST_F(ClientFlow, AFullQueueIsBusyAtOnceByDefault) {
  daemon_->LeaveUnanswered();
  RecordOneWay(kMostAccepted);
  const Status status = client_->RecordMetricAsync("n", {}, kMostAccepted);
  EXPECT_EQ(status.code(), StatusCode::kBusy);
  EXPECT_EQ(status.error_name(), "org.freedesktop.DBus.Error.LimitsExceeded");
  const auto done = [this](const Status& result) { done_.push_back(result); };
  EXPECT_EQ(client_->RecordMetricAsync("n", {}, 0, done).code(), StatusCode::kBusy);
  daemon_->AnswerAll();
  EXPECT_TRUE(client_->Flush(kLong).ok());
  client_->Process();
  EXPECT_THAT(done_, IsEmpty());
  ExpectNumbers(kMostAccepted);
}

TEST_F(ClientFlow, AQueueIsAlsoFullByItsBytes) {
  daemon_->LeaveUnanswered();
  const std::string text(kMaxQueuedBytes, 'x');
  // One is in flight and fills both windows.
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(client_->RecordMetricAsync("n", {}, text).ok());
  EXPECT_EQ(client_->RecordMetricAsync("n", {}, 1).code(), StatusCode::kBusy);
}

TEST_F(ClientFlow, ARecordThatTimedOutInTheQueueLeavesRoom) {
  daemon_->LeaveUnanswered();
  RecordOneWay(kMostUnconfirmed);
  const auto done = [this](const Status& result) { done_.push_back(result); };
  const std::string text(kMaxQueuedBytes, 'x');
  EXPECT_TRUE(client_->RecordMetricAsync("late", {}, text, done, kShort).ok());
  EXPECT_EQ(OnlyCode(), StatusCode::kTimedOut);
  EXPECT_TRUE(client_->RecordMetricAsync("n", {}, 1).ok());
}

TEST_F(ClientFlow, AQueueThatWasLostWithTheBusLeavesRoom) {
  daemon_->LeaveUnanswered();
  const std::string text(kMaxQueuedBytes, 'x');
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(client_->RecordMetricAsync("n", {}, text).ok());
  daemon_.reset();
  RestartBus();
  daemon_ = std::make_unique<FakeDaemon>();
  RecordOneWay(1);
  EXPECT_EQ(client_->LostRecords(), 2U);
}

TEST_F(ClientFlow, ACallerMayWaitForRoomInTheQueue) {
  client_ = std::make_unique<Client>(kLong);
  daemon_->LeaveUnanswered();
  RecordOneWay(kMostAccepted);
  std::thread daemon([this] { daemon_->AnswerAll(); });
  EXPECT_TRUE(client_->RecordMetricAsync("n", {}, kMostAccepted).ok());
  daemon.join();
  EXPECT_TRUE(client_->Flush(kLong).ok());
  ExpectNumbers(kMostAccepted + 1);
}

TEST_F(ClientFlow, AWaitForRoomEndsWithBusy) {
  client_ = std::make_unique<Client>(kShort);
  daemon_->LeaveUnanswered();
  RecordOneWay(kMostAccepted);
  EXPECT_EQ(client_->RecordMetricAsync("n", {}, 0).code(), StatusCode::kBusy);
}

TEST_F(ClientFlow, CallsWithCallbacksAreQueuedBeyondAWindow) {
  daemon_->LeaveUnanswered();
  for (int i = 0; i < 1000; ++i) RecordAsync(kLong);
  ProcessUntilReceived(kWindow);
  Settle();
  EXPECT_EQ(Received(), kWindow);
  daemon_->AnswerAll();
  ProcessUntil(client_.get(), done_, 1000);
  EXPECT_THAT(done_, AllOf(SizeIs(1000), Each(Property(&Status::ok, true))));
}

// The bus counts them as pending until their reply.
TEST_F(ClientFlow, CallsThatTimedOutDoNotExhaustTheBusLimit) {
  daemon_->LeaveUnanswered();
  for (int i = 0; i < 2 * kMostUnconfirmed; ++i)
    ASSERT_EQ(client_->RecordMetric("n", {}, 1, Timeout(1)).code(), StatusCode::kTimedOut) << i;
  Settle();
  EXPECT_LE(Received(), kWindow);
  daemon_->AnswerAll();
  EXPECT_TRUE(client_->RecordMetric("n", {}, 1).ok());
}

TEST_F(ClientFlow, ARecordWhoseTimeEndsInTheQueueIsNotSent) {
  daemon_->LeaveUnanswered();
  RecordOneWay(kMostUnconfirmed);
  EXPECT_EQ(client_->RecordMetric("late", {}, 1, kShort).code(), StatusCode::kTimedOut);
  daemon_->AnswerAll();
  EXPECT_TRUE(client_->Flush(kLong).ok());
  EXPECT_EQ(Received(), kMostUnconfirmed);
}

TEST_F(ClientFlow, ABlockingCallFollowsTheQueue) {
  daemon_->LeaveUnanswered();
  RecordOneWay(500);
  std::thread daemon([this] { daemon_->AnswerAll(); });
  EXPECT_TRUE(client_->RecordMetric("n", {}, 500).ok());
  daemon.join();
  ExpectNumbers(501);
}

TEST_F(ClientFlow, DestructionSendsTheQueue) {
  daemon_->LeaveUnanswered();
  RecordOneWay(500);
  RecordAsync();
  client_.reset();
  EXPECT_TRUE(base::RunUntil([this] { return Received() == 501; }));
  EXPECT_THAT(done_, IsEmpty());
}

TEST_F(ClientFlow, FlushTimesOutWhileTheDaemonHangsAndSucceedsLater) {
  daemon_->LeaveUnanswered();
  RecordOneWay(kMostUnconfirmed);
  EXPECT_EQ(client_->Flush(kShort).code(), StatusCode::kTimedOut);
  EXPECT_EQ(client_->LostRecords(), 0U);
  daemon_->AnswerAll();
  EXPECT_TRUE(client_->Flush(kLong).ok());
}

TEST_F(ClientFlow, ALossIsReportedAfterAFlushThatTimedOut) {
  daemon_->Refuse("org.example.Error");
  RecordOneWay(1);
  EXPECT_TRUE(base::RunUntil([this] {
    client_->Process();
    return client_->LostRecords() == 1;
  }));
  daemon_->LeaveUnanswered();
  RecordOneWay(kMostUnconfirmed);
  EXPECT_EQ(client_->Flush(kShort).code(), StatusCode::kTimedOut);
  daemon_->AnswerAll();
  EXPECT_EQ(client_->Flush(kLong).code(), StatusCode::kFailed);
}

TEST_F(ClientFlow, FlushWaitsForCallsButRunsNoCallbacks) {
  for (int i = 0; i < 3; ++i) RecordAsync();
  EXPECT_TRUE(client_->Flush(kLong).ok());
  EXPECT_EQ(Received(), 3);
  EXPECT_THAT(done_, IsEmpty());
  client_->Process();
  EXPECT_THAT(done_, SizeIs(3));
}

TEST_F(ClientFlow, ACallbackMayFlushAndProcess) {
  int ran = 0;
  const auto flush = [this, &ran](const Status& status) {
    EXPECT_TRUE(status.ok());
    ++ran;
    RecordOneWay(kWindow);
    EXPECT_TRUE(client_->Flush(kLong).ok());
    client_->Process();
  };
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(client_->RecordMetricAsync("n", {}, i, flush).ok());
  while (ran < 3) {
    ASSERT_TRUE(IsReadable(*client_, kLongMs)) << "after " << ran;
    client_->Process();
  }
  EXPECT_EQ(Received(), 3 + 3 * kWindow);
  EXPECT_EQ(ran, 3);
}

TEST_F(ClientFlow, FlushSucceedsIfOnlyTheDaemonAndNoOneWayRecordIsLost) {
  daemon_->LeaveUnanswered();
  daemon_->dbus::FakeService::LeaveUnanswered(kPath, "org.freedesktop.DBus.Introspectable",
                                              "Introspect");
  RecordAsync();
  std::thread daemon([this] {
    const base::MessageLoop loop;
    EXPECT_TRUE(base::RunUntil([this] { return daemon_->CallCount("Introspect") == 1; }));
    daemon_.reset();
  });
  EXPECT_EQ(client_->Flush(kLong).code(), StatusCode::kOk);
  daemon.join();
  EXPECT_EQ(OnlyCode(), StatusCode::kNoDaemon);
}

TEST_F(ClientFlow, FlushWithNothingToConfirmNeedsNoBus) {
  bus_->Stop();
  EXPECT_TRUE(client_->Flush().ok());
}

TEST_F(ClientFlow, ADaemonThatLeavesTheBusIsNoticedWithinAWindow) {
  RecordOneWay(1);
  EXPECT_TRUE(client_->Flush(kLong).ok());
  daemon_.reset();
  for (int sent = 0; client_->LostRecords() == 0; ++sent) {
    ASSERT_LT(sent, kMostUnconfirmed + kWindow);
    ASSERT_TRUE(client_->RecordMetricAsync("n", {}, sent).ok());
    if (sent == kWindow) {
      ASSERT_TRUE(IsReadable(*client_, kLongMs));
    }
    client_->Process();
  }
}

TEST_F(ClientFlow, RecordsLostWithTheDaemonAreCountedAndReportedOnce) {
  daemon_->LeaveUnanswered();
  RecordOneWay(kMostUnconfirmed);
  ProcessUntilReceived(kMostUnconfirmed);
  daemon_.reset();
  const Status status = client_->Flush(kLong);
  EXPECT_EQ(status.code(), StatusCode::kNoDaemon);
  EXPECT_EQ(client_->LostRecords(), uint64_t{kMostUnconfirmed});
  EXPECT_TRUE(client_->Flush(kLong).ok());
}

TEST_F(ClientFlow, EachRecordIsCountedWhileThereIsNoDaemon) {
  daemon_.reset();
  RecordOneWay(300);
  EXPECT_EQ(client_->Flush(kLong).code(), StatusCode::kNoDaemon);
  EXPECT_EQ(client_->LostRecords(), 300U);
  daemon_ = std::make_unique<FakeDaemon>();
  RecordOneWay(300);
  EXPECT_TRUE(client_->Flush(kLong).ok());
  EXPECT_EQ(client_->LostRecords(), 300U);
}

TEST_F(ClientFlow, AWindowWithARestartOfTheDaemonInsideIsNotConfirmed) {
  RecordOneWay(1);
  EXPECT_TRUE(client_->Flush(kLong).ok());
  RecordOneWay(10);
  Settle();
  daemon_.reset();
  daemon_ = std::make_unique<FakeDaemon>();
  RecordOneWay(10);
  const Status status = client_->Flush(kLong);
  EXPECT_EQ(status.code(), StatusCode::kNoDaemon);
  EXPECT_EQ(status.message(), "The daemon was restarted");
  EXPECT_EQ(client_->LostRecords(), 20U);
  RecordOneWay(200);
  EXPECT_TRUE(client_->Flush(kLong).ok());
}

TEST_F(ClientFlow, RecordsLostWithTheBusAreCountedAndTheNextCallReconnects) {
  daemon_->LeaveUnanswered();
  RecordOneWay(500);
  daemon_.reset();
  RestartBus();
  daemon_ = std::make_unique<FakeDaemon>();
  EXPECT_EQ(client_->Flush(kLong).code(), StatusCode::kNotConnected);
  EXPECT_EQ(client_->LostRecords(), 500U);
  RecordOneWay(200);
  EXPECT_TRUE(client_->Flush(kLong).ok());
  ExpectNumbers(200);
}

TEST_F(ClientFlow, AfterARestartOfTheBusNewRecordsAreConfirmed) {
  RecordOneWay(1);
  EXPECT_TRUE(client_->Flush(kLong).ok());
  daemon_.reset();
  RestartBus();
  daemon_ = std::make_unique<FakeDaemon>();
  RecordOneWay(10);
  EXPECT_TRUE(client_->Flush(kLong).ok());
  EXPECT_EQ(client_->LostRecords(), 0U);
}

TEST_F(ClientFlow, ARecordThatTheDaemonRefusesIsCounted) {
  daemon_->Refuse("org.example.Error");
  RecordOneWay(1);
  EXPECT_EQ(client_->Flush(kLong).code(), StatusCode::kFailed);
  EXPECT_EQ(client_->LostRecords(), 1U);
}

TEST_F(ClientFlow, ARecordThatTheBusRejectsIsCounted) {
  daemon_.reset();
  bus_.reset();
  bus_ = std::make_unique<dbus::PrivateBus>("<deny send_interface=\"" + std::string(kInterface) +
                                            R"(" send_member="RecordOfflineData"/>)");
  daemon_ = std::make_unique<FakeDaemon>();
  RecordOneWay(1);
  for (int i = 0; i < 10; ++i) EXPECT_TRUE(client_->RecordOfflineDataAsync("t", {}).ok());
  RecordOneWay(5);
  EXPECT_EQ(client_->Flush(kLong).code(), StatusCode::kRefused);
  EXPECT_EQ(client_->LostRecords(), 10U);
  EXPECT_EQ(Received(), 6);
}

}  // namespace
}  // namespace pelmor
