#include "dbus/object_proxy.h"

#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "dbus/testing/bus_fixture.h"
#include "dbus/testing/call_timeouts.h"
#include "dbus/testing/describe.h"
#include "dbus/testing/fake_service.h"

namespace dbus {
namespace {

using ::testing::ElementsAre;

constexpr char kService[] = "org.example.Clock";
constexpr char kPath[] = "/clock";
constexpr char kInterface[] = "org.example.Clock.Face";

FakeService::Writer Text(const std::string& text) {
  return [text](MessageWriter* writer) { writer->AppendString(text); };
}

// The arguments of the reply, or its error.
std::string Describe(const Response& response) {
  return response.IsError() ? response.GetErrorName() + ": " + response.GetErrorMessage()
                            : Join(DescribeArguments(response));
}

class ObjectProxyTest : public BusTest {
 protected:
  std::string Call(const std::string& method, int timeout_ms = ObjectProxy::kTimeoutUseDefault) {
    const auto response =
        proxy_->CallMethodAndBlock(MethodCall(*proxy_, kInterface, method), timeout_ms);
    return response ? Describe(*response) : "none";
  }

  void CallAsync(const std::string& method, int timeout_ms = ObjectProxy::kTimeoutUseDefault) {
    proxy_->CallMethod(
        MethodCall(*proxy_, kInterface, method), timeout_ms,
        [this](const Response& response) { answers_.push_back(Describe(response)); });
  }

  void Listen(ObjectProxy* proxy, std::vector<std::string>* received) {
    std::optional<bool> connected;
    proxy->ConnectToSignal(
        kInterface, "Struck",
        [received](const Signal& signal) { received->push_back(Join(DescribeArguments(signal))); },
        [&connected](const std::string& interface, const std::string& signal, bool success) {
          EXPECT_EQ(kInterface, interface);
          EXPECT_EQ("Struck", signal);
          connected = success;
        });
    EXPECT_FALSE(connected.has_value()) << "before the loop ran";
    ASSERT_TRUE(base::RunUntil([&connected] { return connected.has_value(); }));
    EXPECT_TRUE(*connected);
  }

  ObjectProxy* const proxy_ = bus_->GetObjectProxy(kService, ObjectPath(kPath));
  std::vector<std::string> answers_;
  std::vector<std::string> received_;
};

TEST_F(ObjectProxyTest, ABlockingCallReturnsTheReply) {
  FakeService clock(kService);
  clock.Answer(kPath, kInterface, "Hour", Text("seven"));
  EXPECT_EQ("\"seven\"", Call("Hour"));
  EXPECT_THAT(clock.Calls(), ElementsAre("/clock org.example.Clock.Face.Hour()"));
}

TEST_F(ObjectProxyTest, ABlockingCallReturnsTheErrorReply) {
  FakeService clock(kService);
  clock.Refuse(kPath, kInterface, "Hour", "org.example.Stopped", "Wind me up");
  EXPECT_EQ("org.example.Stopped: Wind me up", Call("Hour"));
  EXPECT_THAT(Call("Minute"), ::testing::StartsWith("org.freedesktop.DBus.Error.Unknown"));
}

TEST_F(ObjectProxyTest, ACallOfAnAbsentServiceReturnsTheErrorFromTheBus) {
  EXPECT_THAT(Call("Hour"), ::testing::StartsWith("org.freedesktop.DBus.Error.ServiceUnknown: "));
}

TEST_F(ObjectProxyTest, ATimeoutIsAnErrorReply) {
  FakeService clock(kService);
  clock.LeaveUnanswered(kPath, kInterface, "Hour");
  EXPECT_THAT(Call("Hour", 20), ::testing::StartsWith("org.freedesktop.DBus.Error."));
  CallAsync("Hour", 20);
  ASSERT_TRUE(base::RunUntil([this] { return !answers_.empty(); }));
  EXPECT_THAT(answers_, ElementsAre(::testing::StartsWith("org.freedesktop.DBus.Error.")));
}

TEST_F(ObjectProxyTest, ABlockingCallHasTheGivenTimeoutAnd25SecondsByDefault) {
  FakeService clock(kService);
  clock.Answer(kPath, kInterface, "Hour", Text("seven"));
  TakeBlockingCallTimeouts();
  for (const int timeout_ms : {ObjectProxy::kTimeoutUseDefault, 20'000, 0}) {
    EXPECT_EQ("\"seven\"", Call("Hour", timeout_ms));
  }
  EXPECT_THAT(TakeBlockingCallTimeouts(), ElementsAre(25'000'000, 20'000'000, 1000));
}

TEST_F(ObjectProxyTest, ABlockingCallOnALostBusReturnsNull) {
  bool lost = false;
  bus_->SetDisconnectedCallback([&lost] { lost = true; });
  private_bus_.Stop();
  EXPECT_EQ("none", Call("Hour")) << "before the loop has noticed the loss";
  ASSERT_TRUE(base::RunUntil([&lost] { return lost; }));
  EXPECT_EQ("none", Call("Hour"));
}

TEST_F(ObjectProxyTest, AnAsynchronousCallGetsItsReplyOrErrorReply) {
  FakeService clock(kService);
  clock.Answer(kPath, kInterface, "Hour", Text("seven"));
  clock.Refuse(kPath, kInterface, "Minute", "org.example.Stopped", "Wind me up");
  CallAsync("Hour");
  CallAsync("Minute");
  EXPECT_THAT(answers_, ElementsAre());
  ASSERT_TRUE(base::RunUntil([this] { return answers_.size() == 2; }));
  EXPECT_THAT(answers_, ElementsAre("\"seven\"", "org.example.Stopped: Wind me up"));
}

TEST_F(ObjectProxyTest, AnAsynchronousCallOnALostBusGetsAnErrorReply) {
  FakeService clock(kService);
  clock.LeaveUnanswered(kPath, kInterface, "Hour");
  CallAsync("Hour");
  ASSERT_TRUE(base::RunUntil([&clock] { return clock.CallCount("Hour") == 1; }));
  private_bus_.Stop();
  ASSERT_TRUE(base::RunUntil([this] { return answers_.size() == 1; }));
  CallAsync("Hour");
  EXPECT_EQ(1u, answers_.size()) << "before the loop ran";
  ASSERT_TRUE(base::RunUntil([this] { return answers_.size() == 2; }));
  EXPECT_THAT(answers_, ::testing::Each(::testing::HasSubstr("Error")));
}

TEST_F(ObjectProxyTest, NoCallbackRunsAfterTheProxyIsDestroyed) {
  FakeService clock(kService);
  clock.Answer(kPath, kInterface, "Hour", Text("seven"));
  {
    ObjectProxy proxy(bus_->connection(), kService, ObjectPath(kPath));
    const auto never = [](const auto&...) { FAIL(); };
    proxy.CallMethod(MethodCall(proxy, kInterface, "Hour"), -1, never);
    proxy.ConnectToSignal(kInterface, "Struck", never, never);
  }
  ASSERT_TRUE(base::RunUntil([&clock] { return clock.CallCount("Hour") == 1; }));
  clock.Emit(kPath, kInterface, "Struck", Text("one"));
  Settle();
}

TEST_F(ObjectProxyTest, SignalsOfTheObjectAreReceived) {
  FakeService clock(kService);
  Listen(proxy_, &received_);
  clock.Emit(kPath, kInterface, "Struck", Text("one"));
  clock.Emit("/other", kInterface, "Struck", Text("other path"));
  clock.Emit(kPath, "org.example.Other", "Struck", Text("other interface"));
  clock.Emit(kPath, kInterface, "Stopped", Text("other signal"));
  clock.Emit(kPath, kInterface, "Struck", Text("two"));
  Settle();
  EXPECT_THAT(received_, ElementsAre("\"one\"", "\"two\""));
}

TEST_F(ObjectProxyTest, SignalsOfEveryOwnerOfTheNameAreReceived) {
  Listen(proxy_, &received_);
  FakeService first(kService);
  first.Emit(kPath, kInterface, "Struck", Text("first"));
  first.ReleaseName();
  first.Emit(kPath, kInterface, "Struck", Text("first without the name"), OwnUniqueName());
  FakeService second(kService);
  second.Emit(kPath, kInterface, "Struck", Text("second"));
  Settle();
  EXPECT_THAT(received_, ElementsAre("\"first\"", "\"second\""));
}

TEST_F(ObjectProxyTest, ASignalOfAnotherConnectionIsIgnored) {
  FakeService clock(kService);
  FakeService forger("");
  Listen(proxy_, &received_);
  forger.Emit(kPath, kInterface, "Struck", Text("to all"));
  forger.Emit(kPath, kInterface, "Struck", Text("to us"), OwnUniqueName());
  Settle();
  EXPECT_THAT(received_, ElementsAre());
}

TEST_F(ObjectProxyTest, AnOwnerAnnouncedDuringALongBlockingCallIsKnownAfterIt) {
  constexpr int kLongerMilliseconds = 400;
  FakeService clock(kService);
  clock.LeaveUnanswered(kPath, kInterface, "Hour");
  setenv("SYSTEMD_BUS_TIMEOUT", "300ms", 1);
  base::ErrorPtr error;
  const auto bus = Bus::ConnectToSystemBus(&error);
  unsetenv("SYSTEMD_BUS_TIMEOUT");
  ASSERT_TRUE(bus) << error->GetMessage();
  ObjectProxy* const proxy = bus->GetObjectProxy(kService, ObjectPath(kPath));
  std::optional<bool> connected;
  proxy->ConnectToSignal(
      kInterface, "Struck",
      [this](const Signal& signal) { received_.push_back(Join(DescribeArguments(signal))); },
      [&connected](const auto&, const auto&, bool success) { connected = success; });
  EXPECT_TRUE(
      proxy->CallMethodAndBlock(MethodCall(*proxy, kInterface, "Hour"), kLongerMilliseconds));
  ASSERT_TRUE(base::RunUntil([&connected] { return connected.has_value(); }));
  EXPECT_TRUE(*connected);
  clock.Emit(kPath, kInterface, "Struck", Text("one"));
  ASSERT_TRUE(base::RunUntil([this] { return !received_.empty(); }));
  EXPECT_THAT(received_, ElementsAre("\"one\""));
}

TEST_F(ObjectProxyTest, SignalsOfEqualObjectsOfTwoServicesAreDistinguished) {
  FakeService clock(kService);
  FakeService other("org.example.Other");
  std::vector<std::string> other_received;
  Listen(proxy_, &received_);
  Listen(bus_->GetObjectProxy("org.example.Other", ObjectPath(kPath)), &other_received);
  clock.Emit(kPath, kInterface, "Struck", Text("clock"));
  other.Emit(kPath, kInterface, "Struck", Text("other"));
  Settle();
  EXPECT_THAT(received_, ElementsAre("\"clock\""));
  EXPECT_THAT(other_received, ElementsAre("\"other\""));
}

TEST_F(ObjectProxyTest, AForgedChangeOfOwnerIsIgnored) {
  FakeService clock(kService);
  FakeService forger("");
  Listen(proxy_, &received_);
  const std::string forger_name = forger.UniqueName();
  const std::string clock_name = clock.UniqueName();
  const auto change = [&](MessageWriter* writer) {
    for (const std::string& name : {std::string(kService), clock_name, forger_name})
      writer->AppendString(name);
  };
  forger.Emit("/org/freedesktop/DBus", "org.freedesktop.DBus", "NameOwnerChanged", change,
              OwnUniqueName());
  forger.Emit(kPath, kInterface, "Struck", Text("forged"), OwnUniqueName());
  clock.Emit(kPath, kInterface, "Struck", Text("one"));
  Settle();
  EXPECT_THAT(received_, ElementsAre("\"one\""));
}

TEST_F(ObjectProxyTest, AOneWayCallRequestsNoReply) {
  FakeService clock(kService);
  clock.Answer(kPath, kInterface, "Hour", Text("seven"));
  EXPECT_TRUE(proxy_->SendOneWay(MethodCall(*proxy_, kInterface, "Hour")));
  EXPECT_EQ("\"seven\"", Call("Hour")) << "after it";
  EXPECT_EQ(clock.CallCount("Hour"), 2);
  EXPECT_EQ(clock.RequestedReplies("Hour"), 1);
}

TEST_F(ObjectProxyTest, AOneWayCallOnALostBusFails) {
  private_bus_.Stop();
  EXPECT_FALSE(proxy_->SendOneWay(MethodCall(*proxy_, kInterface, "Hour")));
}

TEST_F(ObjectProxyTest, AnUndeliveredOneWayCallIsReportedWithItsSerial) {
  std::vector<uint64_t> serials;
  proxy_->SetOneWayErrorCallback([&](const Response& error) {
    serials.push_back(error.GetReplySerial());
    answers_.push_back(error.GetErrorName());
  });
  const MethodCall call(*proxy_, kInterface, "Hour");
  EXPECT_EQ(call.GetSerial(), 0U) << "before it is sent";
  EXPECT_TRUE(proxy_->SendOneWay(call));
  CallAsync("Hour");
  ASSERT_TRUE(base::RunUntil([this] { return answers_.size() == 2; }));
  Settle();
  EXPECT_THAT(serials, ElementsAre(call.GetSerial())) << "not for the call that has a callback";
  EXPECT_EQ(answers_[0], "org.freedesktop.DBus.Error.ServiceUnknown");
}

TEST_F(ObjectProxyTest, ConnectingToASignalOnALostBusFails) {
  bool lost = false;
  bus_->SetDisconnectedCallback([&lost] { lost = true; });
  private_bus_.Stop();
  ASSERT_TRUE(base::RunUntil([&lost] { return lost; }));
  std::optional<bool> connected;
  proxy_->ConnectToSignal(
      kInterface, "Struck", [](const Signal&) {},
      [&connected](const std::string&, const std::string&, bool success) { connected = success; });
  ASSERT_TRUE(base::RunUntil([&connected] { return connected.has_value(); }));
  EXPECT_FALSE(*connected);
}

}  // namespace
}  // namespace dbus
