#include "bindings/larder_proxies.h"

#include <cstdint>
#include <string>
#include <vector>

#include "dbus/larder_fixture.h"
#include "dbus/testing/call_timeouts.h"

namespace org::quintara::Larder {
namespace {

using kestle::ErrorPtr;
using kestle::VariantDictionary;
using kestle::dbus_utils::FakeService;
using kestle::dbus_utils::Write;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using LarderProxies = LarderTest;
using AbsentLarder = dbus::BusTest;

constexpr char kInvalidArgs[] = "org.freedesktop.DBus.Error.InvalidArgs";
constexpr char kServiceUnknown[] = "org.freedesktop.DBus.Error.ServiceUnknown";
constexpr int kDefaultTimeout = dbus::ObjectProxy::kTimeoutUseDefault;

std::string Text(const ErrorPtr& error) {
  return error ? error->GetDomain() + " " + error->GetCode() + ": " + error->GetMessage() : "none";
}

TEST_F(LarderProxies, EachManagerMethodSendsItsInputs) {
  ManagerProxy* const manager = AddManager();
  for (const char* const method : {"UpdateDeviceInfo", "UpdateServiceConfig", "UpdateState"})
    larder_.Answer(kManagerPath, kManager, method);
  for (const char* const method :
       {"CheckDeviceRegistered", "RegisterDevice", "GetState", "AddCommand", "TestMethod"})
    larder_.Answer(kManagerPath, kManager, method, Write(std::string("out")));
  std::string out[5];
  EXPECT_TRUE(manager->CheckDeviceRegistered(&out[0], nullptr));
  EXPECT_TRUE(manager->RegisterDevice("ticket", &out[1], nullptr));
  EXPECT_TRUE(manager->UpdateDeviceInfo("a", "b", "c", nullptr));
  EXPECT_TRUE(manager->UpdateServiceConfig("1", "2", "3", "4", "5", nullptr));
  EXPECT_TRUE(manager->UpdateState({{"k", true}, {"l", VariantDictionary{{"m", 5}}}}, nullptr));
  EXPECT_TRUE(manager->GetState(&out[2], nullptr));
  EXPECT_TRUE(manager->AddCommand("command", &out[3], nullptr));
  EXPECT_TRUE(manager->TestMethod("text", &out[4], nullptr));
  EXPECT_THAT(out, ::testing::Each("out"));
  const std::string prefix = std::string(kManagerPath) + " " + kManager + ".";
  EXPECT_THAT(larder_.Calls(),
              ::testing::IsSupersetOf(
                  {prefix + "CheckDeviceRegistered()", prefix + "RegisterDevice(\"ticket\")",
                   prefix + "UpdateDeviceInfo(\"a\", \"b\", \"c\")",
                   prefix + "UpdateServiceConfig(\"1\", \"2\", \"3\", \"4\", \"5\")",
                   prefix + "UpdateState({\"k\": true, \"l\": {\"m\": 5}})", prefix + "GetState()",
                   prefix + "AddCommand(\"command\")", prefix + "TestMethod(\"text\")"}));
}

TEST_F(LarderProxies, EachCommandMethodSendsItsInputs) {
  CommandProxy* const command = AddCommand();
  for (const char* const method : {"SetProgress", "Complete", "Abort", "SetError", "Cancel"})
    larder_.Answer(kCommandPath, kCommand, method);
  EXPECT_TRUE(command->SetProgress({{"done", 0.5}}, nullptr));
  EXPECT_TRUE(command->Complete({}, nullptr));
  EXPECT_TRUE(command->Abort("", "", nullptr));
  EXPECT_TRUE(command->SetError("code", "text", nullptr));
  EXPECT_TRUE(command->Cancel(nullptr));
  const std::string prefix = std::string(kCommandPath) + " " + kCommand + ".";
  EXPECT_THAT(larder_.Calls(), ::testing::IsSupersetOf(
                                   {prefix + "SetProgress({\"done\": 0.5})",
                                    prefix + "Complete({})", prefix + "Abort(\"\", \"\")",
                                    prefix + "SetError(\"code\", \"text\")", prefix + "Cancel()"}));
}

TEST_F(LarderProxies, EachBlockingCallWaits25SecondsForItsReply) {
  constexpr uint64_t kDefaultMicroseconds = 25'000'000;
  ManagerProxy* const manager = AddManager();
  CommandProxy* const command = AddCommand();
  dbus::TakeBlockingCallTimeouts();
  std::string out;
  // Only the timeouts count.
  (void)manager->CheckDeviceRegistered(&out, nullptr);
  (void)manager->RegisterDevice("ticket", &out, nullptr);
  (void)manager->UpdateDeviceInfo("a", "b", "c", nullptr);
  (void)manager->UpdateState({}, nullptr);
  (void)command->SetProgress({}, nullptr);
  (void)command->Complete({}, nullptr);
  (void)command->Abort("", "", nullptr);
  const std::vector<uint64_t> timeouts = dbus::TakeBlockingCallTimeouts();
  EXPECT_EQ(timeouts.size(), 7u);
  EXPECT_THAT(timeouts, ::testing::Each(kDefaultMicroseconds));
}

TEST_F(LarderProxies, AnAsynchronousCallReturnsItsOutputs) {
  ManagerProxy* const manager = AddManager();
  larder_.Answer(kManagerPath, kManager, "RegisterDevice", Write(std::string("id")));
  const kestle::dbus_utils::ErrorCallback no_error = [](const kestle::Error* error) {
    ADD_FAILURE() << error->GetMessage();
  };
  std::string id;
  manager->RegisterDeviceAsync(
      "ticket", [&id](const std::string& device_id) { id = device_id; }, no_error);
  EXPECT_EQ(id, "") << "called back before the loop ran";
  EXPECT_TRUE(base::RunUntil([&id] { return id == "id"; }));
  EXPECT_THAT(larder_.LastArguments("RegisterDevice"), ElementsAre("\"ticket\""));

  larder_.Answer(kManagerPath, kManager, "UpdateState");
  bool updated = false;
  manager->UpdateStateAsync(
      {{"k", 1}}, [&updated] { updated = true; }, no_error);
  EXPECT_TRUE(base::RunUntil([&updated] { return updated; }));
  EXPECT_THAT(larder_.LastArguments("UpdateState"), ElementsAre("{\"k\": 1}"));
}

TEST_F(LarderProxies, ACallCanBeMadeAndSentLater) {
  ManagerProxy* const manager = AddManager();
  const dbus::MethodCall call = manager->NewUpdateDeviceInfoCall("a", "b", "c");
  EXPECT_EQ(larder_.CallCount("UpdateDeviceInfo"), 0);
  EXPECT_TRUE(manager->GetObjectProxy()->SendOneWay(call));
  std::string state;
  EXPECT_FALSE(manager->GetState(&state, nullptr)) << "has no script, and follows the call";
  EXPECT_THAT(larder_.LastArguments("UpdateDeviceInfo"), ElementsAre("\"a\"", "\"b\"", "\"c\""));
}

TEST_F(LarderProxies, AnAsynchronousCallReturnsItsError) {
  CommandProxy* const command = AddCommand();
  larder_.Refuse(kCommandPath, kCommand, "Abort", "org.example.No", "Not now");
  std::string code;
  command->AbortAsync(
      "", "", [] { ADD_FAILURE() << "no success expected"; },
      [&code](const kestle::Error* error) { code = error->GetCode(); });
  EXPECT_TRUE(base::RunUntil([&code] { return code == "org.example.No"; }));
}

TEST_F(LarderProxies, AnErrorReplyFailsTheCall) {
  CommandProxy* const command = AddCommand();
  larder_.Refuse(kCommandPath, kCommand, "Complete", "org.example.No", "Not now");
  ErrorPtr error;
  EXPECT_FALSE(command->Complete({}, &error));
  EXPECT_EQ(Text(error), "dbus org.example.No: Not now");
  EXPECT_FALSE(command->Complete({}, nullptr));
}

TEST_F(LarderProxies, AReplyWithOtherOutputsFailsTheCall) {
  struct Case {
    FakeService::Writer reply;
    const char* message;
  };
  const Case cases[] = {
      {{}, "Too few parameters in a method call"},
      {Write(int32_t{1}), "Method parameter type mismatch"},
      {[](dbus::MessageWriter* writer) {
         writer->AppendString("id");
         writer->AppendString("more");
       },
       "Too many parameters in a method call"},
  };
  ManagerProxy* const manager = AddManager();
  for (const Case& one : cases) {
    larder_.Answer(kManagerPath, kManager, "RegisterDevice", one.reply);
    ErrorPtr error;
    std::string id = "before";
    EXPECT_FALSE(manager->RegisterDevice("ticket", &id, &error));
    EXPECT_EQ(Text(error), "dbus " + std::string(kInvalidArgs) + ": " + one.message);
    EXPECT_EQ(id, "before");
  }
}

TEST_F(LarderProxies, AReplyWithUnexpectedOutputsFailsTheCall) {
  CommandProxy* const command = AddCommand();
  larder_.Answer(kCommandPath, kCommand, "Cancel", Write(std::string("unasked")));
  ErrorPtr error;
  EXPECT_FALSE(command->Cancel(&error));
  EXPECT_EQ(Text(error),
            "dbus " + std::string(kInvalidArgs) + ": Too many parameters in a method call");
}

TEST_F(LarderProxies, ACallWithoutATimelyReplyFails) {
  CommandProxy* const command = AddCommand();
  larder_.LeaveUnanswered(kCommandPath, kCommand, "Cancel");
  ErrorPtr error;
  constexpr int kTimeoutMs = 20;
  EXPECT_FALSE(command->Cancel(&error, kTimeoutMs));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->GetDomain(), "dbus");
}

TEST_F(LarderProxies, AStaleProxyFailsItsCalls) {
  CommandProxy* const command = AddCommand();
  // Removed, but the loop has not run to notice it.
  larder_.RemoveObject(kCommandPath, kCommand);
  ErrorPtr error;
  EXPECT_FALSE(command->Cancel(&error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->GetDomain(), "dbus");
  larder_.ReleaseName();
  error.reset();
  EXPECT_FALSE(command->Cancel(&error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->GetCode(), kServiceUnknown);
}

TEST_F(LarderProxies, ACallOnALostConnectionFails) {
  CommandProxy* const command = AddCommand();
  private_bus_.Stop();
  ErrorPtr error;
  EXPECT_FALSE(command->Cancel(&error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->GetDomain(), "dbus");
}

TEST_F(AbsentLarder, ACallToAnAbsentServiceFailsWithTheErrorFromTheBus) {
  ObjectManagerProxy proxies(bus_);
  const ManagerProxy::PropertySet properties(
      bus_->GetObjectProxy(kService, dbus::ObjectPath(kManagerPath)), {});
  ManagerProxy manager(bus_, &properties);
  ErrorPtr error;
  EXPECT_FALSE(manager.UpdateState({}, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->GetDomain(), "dbus");
  EXPECT_EQ(error->GetCode(), kServiceUnknown);
  EXPECT_NE(error->GetMessage(), "");
  EXPECT_EQ(error->inner(), nullptr);
  EXPECT_FALSE(manager.UpdateState({}, nullptr));
  Settle();
  EXPECT_THAT(proxies.GetManagerProxies(), IsEmpty());
}

// A fake command.
class FakeCommand : public CommandProxyInterface {
 public:
  using Success = base::Callback<void()>;
  using Failure = kestle::dbus_utils::ErrorCallback;

  MOCK_METHOD(bool, SetProgress, (const VariantDictionary&, ErrorPtr*, int), (override));
  MOCK_METHOD(void, SetProgressAsync,
              (const VariantDictionary&, const Success&, const Failure&, int), (override));
  MOCK_METHOD(bool, Complete, (const VariantDictionary&, ErrorPtr*, int), (override));
  MOCK_METHOD(void, CompleteAsync, (const VariantDictionary&, const Success&, const Failure&, int),
              (override));
  MOCK_METHOD(bool, Abort, (const std::string&, const std::string&, ErrorPtr*, int), (override));
  MOCK_METHOD(void, AbortAsync,
              (const std::string&, const std::string&, const Success&, const Failure&, int),
              (override));
  MOCK_METHOD(bool, SetError, (const std::string&, const std::string&, ErrorPtr*, int), (override));
  MOCK_METHOD(void, SetErrorAsync,
              (const std::string&, const std::string&, const Success&, const Failure&, int),
              (override));
  MOCK_METHOD(bool, Cancel, (ErrorPtr*, int), (override));
  MOCK_METHOD(void, CancelAsync, (const Success&, const Failure&, int), (override));
  MOCK_METHOD(const std::string&, Name, (), (const, override));
  MOCK_METHOD(const std::string&, Id, (), (const, override));
  MOCK_METHOD(const std::string&, State, (), (const, override));
  MOCK_METHOD(const VariantDictionary&, Parameters, (), (const, override));
  MOCK_METHOD(const VariantDictionary&, Progress, (), (const, override));
  MOCK_METHOD(const VariantDictionary&, Results, (), (const, override));
  MOCK_METHOD(const std::string&, Origin, (), (const, override));
  MOCK_METHOD(const dbus::ObjectPath&, GetObjectPath, (), (const, override));
  MOCK_METHOD(dbus::ObjectProxy*, GetObjectProxy, (), (override));
  MOCK_METHOD(void, SetPropertyChangedCallback, (const PropertyChangedCallback&), (override));
};

TEST(CommandProxyInterface, AFakeCanReplaceTheProxy) {
  FakeCommand substitute;
  CommandProxyInterface* const command = &substitute;
  EXPECT_CALL(substitute, Abort("code", "", nullptr, kDefaultTimeout))
      .WillOnce(::testing::Return(true));
  EXPECT_TRUE(command->Abort("code", "", nullptr));
}

}  // namespace
}  // namespace org::quintara::Larder
