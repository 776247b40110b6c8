#include "ap/common/system_clock_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/message_loop.h"
#include "base/testing/log_capture.h"
#include "base/testing/run_until.h"
#include "dbus/testing/call_timeouts.h"
#include "dbus/testing/private_bus.h"
#include "kestle/dbus_utils/testing/fake_service.h"

namespace varelnos::ap {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kName[] = "org.torproject.tlsdate";
constexpr char kPath[] = "/org/torproject/tlsdate";

class SystemClockClientTest : public testing::Test {
 protected:
  SystemClockClientTest() {
    base::ErrorPtr error;
    connection_ = dbus::Bus::ConnectToSystemBus(&error);
    EXPECT_NE(connection_, nullptr) << error->GetMessage();
    client_ = std::make_unique<SystemClockClient>(connection_);
  }

  void StartTlsdate() { tlsdate_ = std::make_unique<kestle::dbus_utils::FakeService>(kName); }
  void AnswerSyncInfo(bool synced, const std::string& source, int64_t seconds) {
    tlsdate_->Answer(kPath, kName, "LastSyncInfo", [=](dbus::MessageWriter* writer) {
      writer->AppendBool(synced);
      writer->AppendString(source);
      writer->AppendInt64(seconds);
    });
  }
  void EmitTimeUpdated(const std::string& source) {
    tlsdate_->Emit(kPath, kName, "TimeUpdated",
                   [=](dbus::MessageWriter* writer) { writer->AppendString(source); });
  }
  // Starts to wait, and runs the loop until the connected signal has queried tlsdate.
  void Wait() {
    const int asked = tlsdate_->CallCount("LastSyncInfo");
    client_->WaitForNetworkTime([this] { ++callbacks_; });
    ASSERT_TRUE(base::RunUntil(
        [&] { return callbacks_ > 0 || tlsdate_->CallCount("LastSyncInfo") > asked; }));
  }

  base::MessageLoop loop_;
  base::LogCapture log_;
  dbus::PrivateBus bus_;
  scoped_refptr<dbus::Bus> connection_;
  std::unique_ptr<kestle::dbus_utils::FakeService> tlsdate_;
  std::unique_ptr<SystemClockClient> client_;
  int callbacks_ = 0;
};

TEST_F(SystemClockClientTest, OnlyTheSourceDecides) {
  const struct {
    bool synced;
    const char* source;
    bool network_time;
  } kCases[] = {
      {true, "none", false},    {true, "", false},         {true, "disk", false},
      {true, "Network", false}, {true, "network ", false}, {false, "network", true},
  };
  StartTlsdate();
  for (const auto& test : kCases) {
    AnswerSyncInfo(test.synced, test.source, 1700000000);
    EXPECT_EQ(client_->HasNetworkTime(), test.network_time) << test.source;
  }
  EXPECT_THAT(log_.lines(), ElementsAre("INFO Network time acquired"));
}

TEST_F(SystemClockClientTest, AnnouncesNetworkTimeWhenItIsAcquired) {
  StartTlsdate();
  AnswerSyncInfo(true, "disk", 1700000000);
  int changes = 0;
  client_->SetChangedCallback([this, &changes] {
    EXPECT_TRUE(client_->network_time_acquired());
    ++changes;
  });
  client_->HasNetworkTime();
  EXPECT_FALSE(client_->network_time_acquired());
  EXPECT_EQ(changes, 0);
  AnswerSyncInfo(true, "network", 1700000000);
  client_->HasNetworkTime();
  client_->HasNetworkTime();
  EXPECT_EQ(changes, 1);
  EXPECT_EQ(tlsdate_->CallCount("LastSyncInfo"), 2);
}

TEST_F(SystemClockClientTest, MakesNoCallBeforeTheFirstQuery) {
  StartTlsdate();
  AnswerSyncInfo(true, "network", 0);
  EXPECT_EQ(tlsdate_->CallCount("LastSyncInfo"), 0);
}

TEST_F(SystemClockClientTest, NetworkTimeStaysAcquiredAfterTlsdateStops) {
  StartTlsdate();
  AnswerSyncInfo(true, "network", 1700000000);
  EXPECT_TRUE(client_->HasNetworkTime());
  EXPECT_TRUE(client_->HasNetworkTime());
  EXPECT_EQ(tlsdate_->CallCount("LastSyncInfo"), 1);
  tlsdate_.reset();
  EXPECT_TRUE(client_->HasNetworkTime());
}

TEST_F(SystemClockClientTest, UntilThenEveryQueryMakesACall) {
  EXPECT_FALSE(client_->HasNetworkTime());  // tlsdate is not on the bus.
  StartTlsdate();
  AnswerSyncInfo(false, "none", 0);
  EXPECT_FALSE(client_->HasNetworkTime());
  EXPECT_FALSE(client_->HasNetworkTime());
  EXPECT_EQ(tlsdate_->CallCount("LastSyncInfo"), 2);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(SystemClockClientTest, CallsToTlsdateTimeOutAfter25Seconds) {
  dbus::TakeBlockingCallTimeouts();
  EXPECT_FALSE(client_->HasNetworkTime());
  EXPECT_THAT(dbus::TakeBlockingCallTimeouts(), ElementsAre(25'000'000));
}

TEST_F(SystemClockClientTest, ReturnsTheSyncInfoUnchanged) {
  StartTlsdate();
  AnswerSyncInfo(true, "disk", 1700000000);
  bool synced = false;
  std::string source;
  base::Time time;
  EXPECT_TRUE(client_->GetLastSyncInfo(&synced, &source, &time));
  EXPECT_TRUE(synced);
  EXPECT_EQ(source, "disk");
  EXPECT_EQ(time, base::Time::FromTimeT(1700000000));
}

TEST_F(SystemClockClientTest, AnErrorOrMalformedReplyLeavesTheOutputsUnchanged) {
  bool synced = true;
  std::string source = "before";
  base::Time time = base::Time::FromTimeT(1);
  StartTlsdate();
  using Writer = dbus::MessageWriter;
  const std::function<void(Writer*)> kReplies[] = {
      [](Writer*) {},
      [](Writer* writer) { writer->AppendBool(false); },
      [](Writer* writer) {
        writer->AppendBool(false);
        writer->AppendString("network");
      },
      [](Writer* writer) {
        writer->AppendBool(false);
        writer->AppendString("network");
        writer->AppendInt32(5);
      },
      [](Writer* writer) {
        writer->AppendString("network");
        writer->AppendBool(false);
        writer->AppendInt64(5);
      },
      [](Writer* writer) {
        writer->AppendBool(false);
        writer->AppendString("network");
        writer->AppendInt64(5);
        writer->AppendInt64(6);
      },
  };
  for (const auto& reply : kReplies) {
    tlsdate_->Answer(kPath, kName, "LastSyncInfo", reply);
    EXPECT_FALSE(client_->GetLastSyncInfo(&synced, &source, &time));
    EXPECT_FALSE(client_->HasNetworkTime());
  }
  tlsdate_->Refuse(kPath, kName, "LastSyncInfo", "org.example.Error", "no");
  EXPECT_FALSE(client_->GetLastSyncInfo(&synced, &source, &time));
  EXPECT_TRUE(synced);
  EXPECT_EQ(source, "before");
  EXPECT_EQ(time, base::Time::FromTimeT(1));
}

TEST_F(SystemClockClientTest, TheSignalSetsTheStateAndRunsTheCallbackOnce) {
  StartTlsdate();
  AnswerSyncInfo(false, "none", 0);
  Wait();
  EXPECT_EQ(callbacks_, 0);
  EmitTimeUpdated("network");
  ASSERT_TRUE(base::RunUntil([&] { return callbacks_ == 1; }));
  EXPECT_TRUE(client_->HasNetworkTime());
  EXPECT_EQ(tlsdate_->CallCount("LastSyncInfo"), 1);
  EXPECT_THAT(log_.lines(), IsEmpty());
  // A second signal runs no callback. The next wait's call arrives after it on the bus.
  EmitTimeUpdated("network");
  client_->WaitForNetworkTime([this] { callbacks_ += 10; });
  ASSERT_TRUE(base::RunUntil([&] { return callbacks_ >= 11; }));
  EXPECT_EQ(callbacks_, 11);
}

TEST_F(SystemClockClientTest, ASignalWithAnotherSourceChangesNothing) {
  StartTlsdate();
  AnswerSyncInfo(false, "none", 0);
  Wait();
  EmitTimeUpdated("disk");
  EmitTimeUpdated("");
  EXPECT_FALSE(client_->HasNetworkTime());  // Its reply arrives after the signal.
  for (int turn = 0; turn < 10; ++turn) loop_.RunOnce(base::TimeDelta());
  EXPECT_EQ(callbacks_, 0);
  EmitTimeUpdated("network");
  EXPECT_TRUE(base::RunUntil([&] { return callbacks_ == 1; }));
}

TEST_F(SystemClockClientTest, AForgedSignalChangesNothing) {
  StartTlsdate();
  AnswerSyncInfo(false, "none", 0);
  Wait();
  kestle::dbus_utils::FakeService impostor("org.example.Impostor");
  impostor.Emit(
      kPath, kName, "TimeUpdated",
      [](dbus::MessageWriter* writer) { writer->AppendString("network"); },
      /*destination=*/"");
  EmitTimeUpdated("disk");
  EXPECT_FALSE(client_->HasNetworkTime());  // Its reply arrives after the signal.
  loop_.RunOnce(base::TimeDelta::FromMilliseconds(50));
  EXPECT_EQ(callbacks_, 0);
}

TEST_F(SystemClockClientTest, IfTheTimeIsKnownTheCallbackRunsWhenTheSignalIsConnected) {
  StartTlsdate();
  AnswerSyncInfo(true, "network", 0);
  EXPECT_TRUE(client_->HasNetworkTime());
  client_->WaitForNetworkTime([this] { ++callbacks_; });
  EXPECT_EQ(callbacks_, 0);
  ASSERT_TRUE(base::RunUntil([&] { return callbacks_ == 1; }));
}

TEST_F(SystemClockClientTest, AClockSetBeforeTheSignalWasConnectedIsNoticed) {
  StartTlsdate();
  AnswerSyncInfo(true, "network", 0);
  Wait();
  EXPECT_EQ(callbacks_, 1);
  EXPECT_THAT(log_.lines(), ElementsAre("INFO Network time acquired"));
}

TEST_F(SystemClockClientTest, ASecondWaitWhileOneIsPendingIsFatal) {
  client_->WaitForNetworkTime([] {});
  EXPECT_DEATH(client_->WaitForNetworkTime([] {}),
               "Check failed: network_time_callback_.is_null\\(\\)");
}

TEST_F(SystemClockClientTest, HandlesNothingAfterItsDestruction) {
  StartTlsdate();
  AnswerSyncInfo(true, "network", 0);
  client_->WaitForNetworkTime([this] { ++callbacks_; });
  client_.reset();
  EmitTimeUpdated("network");
  for (int i = 0; i < 10; ++i) loop_.RunOnce(base::TimeDelta::FromMilliseconds(5));
  EXPECT_EQ(callbacks_, 0);
  EXPECT_EQ(tlsdate_->CallCount("LastSyncInfo"), 0);
}

TEST_F(SystemClockClientTest, TheTimeIsKnownBeforeTheCallbackRuns) {
  StartTlsdate();
  AnswerSyncInfo(false, "none", 0);
  bool known = false;
  int asked = 0;
  client_->WaitForNetworkTime([&] {
    known = client_->HasNetworkTime();
    asked = tlsdate_->CallCount("LastSyncInfo");
    ++callbacks_;
  });
  ASSERT_TRUE(base::RunUntil([&] { return tlsdate_->CallCount("LastSyncInfo") == 1; }));
  EmitTimeUpdated("network");
  ASSERT_TRUE(base::RunUntil([&] { return callbacks_ == 1; }));
  EXPECT_TRUE(known);
  EXPECT_EQ(asked, 1);
}

class WaitWithinTheCallback : public SystemClockClientTest {
 public:
  void TestBody() override {
    StartTlsdate();
    AnswerSyncInfo(true, "network", 0);
    ASSERT_TRUE(client_->HasNetworkTime());
    client_->WaitForNetworkTime([this] {
      client_->WaitForNetworkTime([] {});
      ++callbacks_;
    });
    static_cast<void>(base::RunUntil([this] { return callbacks_ > 0; }));
  }
};

// The wait ends after its callback. A loop works only in the process that created it, so the child
// of the death test creates everything.
TEST(SystemClockClientDeathTest, AWaitFromWithinTheCallbackIsFatal) {
  EXPECT_DEATH(WaitWithinTheCallback().TestBody(),
               "Check failed: network_time_callback_.is_null\\(\\)");
}

// Without the bus the signal cannot be connected.
TEST_F(SystemClockClientTest, AFailureToConnectTheSignalIsLogged) {
  bus_.Stop();
  client_->WaitForNetworkTime([this] { ++callbacks_; });
  ASSERT_TRUE(base::RunUntil([&] { return !log_.lines().empty(); }));
  EXPECT_THAT(log_.lines(), ElementsAre("ERROR Failed to connect to TimeUpdated signal"));
  EXPECT_EQ(callbacks_, 0);
}

TEST_F(SystemClockClientTest, AKnownTimeEndsTheWaitWithoutTheSignal) {
  StartTlsdate();
  AnswerSyncInfo(true, "network", 0);
  EXPECT_TRUE(client_->HasNetworkTime());
  log_.Clear();
  bus_.Stop();
  client_->WaitForNetworkTime([this] { ++callbacks_; });
  EXPECT_TRUE(base::RunUntil([&] { return callbacks_ == 1; }));
  EXPECT_THAT(log_.lines(), ElementsAre("ERROR Failed to connect to TimeUpdated signal"));
}

}  // namespace
}  // namespace varelnos::ap
