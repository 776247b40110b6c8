#include "kestle/dbus_utils/calls.h"

#include <memory>
#include <string>
#include <vector>

#include "dbus/testing/bus_fixture.h"
#include "kestle/dbus_utils/testing/fake_service.h"

namespace kestle::dbus_utils {
namespace {

using ::testing::ElementsAre;

constexpr char kService[] = "org.example.Bank";
constexpr char kPath[] = "/bank";
constexpr char kInterface[] = "org.example.Bank.Till";

// The newest entry, as "domain code: message".
std::string Tell(const Error* error) {
  return error ? error->GetDomain() + " " + error->GetCode() + ": " + error->GetMessage() : "none";
}

class CallsTest : public dbus::BusTest {
 protected:
  std::unique_ptr<dbus::Response> Call(const std::string& method) {
    return CallMethodAndBlock(proxy_, kInterface, method, &error_);
  }
  // Calls "Balance", to which the service replies with the arguments.
  std::unique_ptr<dbus::Response> CallAnsweredWith(const dbus::FakeService::Writer& reply) {
    bank_.Answer(kPath, kInterface, "Balance", reply);
    return Call("Balance");
  }

  dbus::ObjectProxy* const proxy_ = bus_->GetObjectProxy(kService, dbus::ObjectPath(kPath));
  FakeService bank_{kService};
  ErrorPtr error_;
};

void WriteBalance(dbus::MessageWriter* writer) {
  writer->AppendBool(true);
  writer->AppendString("crowns");
  writer->AppendInt64(12);
}

TEST_F(CallsTest, ArgumentsAreSentInOrder) {
  bank_.Answer(kPath, kInterface, "Pay");
  EXPECT_TRUE(CallMethodAndBlock(proxy_, kInterface, "Pay", &error_, std::string("rent"),
                                 VariantDictionary{{"sum", 12}, {"paid", true}}));
  EXPECT_EQ("none", Tell(error_.get()));
  EXPECT_THAT(bank_.Calls(), ElementsAre("/bank org.example.Bank.Till.Pay"
                                         "(\"rent\", {\"paid\": true, \"sum\": 12})"));
}

TEST_F(CallsTest, ResultsAreReadInOrder) {
  const auto response = CallAnsweredWith(&WriteBalance);
  ASSERT_TRUE(response);
  bool open = false;
  std::string currency;
  int64_t sum = 0;
  EXPECT_TRUE(ExtractMethodCallResults(response.get(), &error_, &open, &currency, &sum));
  EXPECT_EQ("none", Tell(error_.get()));
  EXPECT_TRUE(open);
  EXPECT_EQ("crowns", currency);
  EXPECT_EQ(12, sum);
}

TEST_F(CallsTest, AnErrorReplyBecomesAnError) {
  bank_.Refuse(kPath, kInterface, "Pay", "org.example.Bank.Empty", "No money");
  EXPECT_FALSE(Call("Pay"));
  EXPECT_EQ("dbus org.example.Bank.Empty: No money", Tell(error_.get()));
  EXPECT_FALSE(CallMethodAndBlock(proxy_, kInterface, "Pay", nullptr)) << "without a sink";
}

TEST_F(CallsTest, AnErrorIsAddedToTheCallersChain) {
  Error::AddTo(&error_, "bank", "earlier", "Something before");
  bank_.Refuse(kPath, kInterface, "Pay", "org.example.Bank.Empty", "No money");
  EXPECT_FALSE(Call("Pay"));
  ASSERT_TRUE(error_);
  EXPECT_EQ("bank earlier: Something before", Tell(error_->inner()));
}

TEST_F(CallsTest, ACallOfAnAbsentServiceFailsWithTheErrorFromTheBus) {
  bank_.ReleaseName();
  EXPECT_FALSE(Call("Pay"));
  ASSERT_TRUE(error_);
  EXPECT_EQ("org.freedesktop.DBus.Error.ServiceUnknown", error_->GetCode());
  EXPECT_FALSE(error_->inner());
}

TEST_F(CallsTest, ACallWithoutAReplyTimesOut) {
  bank_.LeaveUnanswered(kPath, kInterface, "Pay");
  EXPECT_FALSE(CallMethodAndBlockWithTimeout(20, proxy_, kInterface, "Pay", &error_));
  ASSERT_TRUE(error_);
  EXPECT_THAT(error_->GetCode(), ::testing::StartsWith("org.freedesktop.DBus.Error."));
}

TEST_F(CallsTest, ACallOnALostBusFails) {
  private_bus_.Stop();
  EXPECT_FALSE(Call("Pay"));
  EXPECT_EQ(
      "dbus org.freedesktop.DBus.Error.Failed: Failed to call D-Bus method: "
      "org.example.Bank.Till.Pay",
      Tell(error_.get()));
}

TEST_F(CallsTest, TheFirstWrongResultDecidesTheError) {
  const struct {
    std::string name;
    dbus::FakeService::Writer reply;
    std::string message;
  } kCases[] = {
      {"nothing", {}, "Too few parameters in a method call"},
      {"two of three",
       [](auto* writer) {
         writer->AppendBool(true);
         writer->AppendString("crowns");
       },
       "Too few parameters in a method call"},
      {"a wrong type before too few", [](auto* writer) { writer->AppendString("crowns"); },
       "Method parameter type mismatch"},
      {"a wrong type before too many",
       [](auto* writer) {
         writer->AppendBool(true);
         writer->AppendInt32(1);
         WriteBalance(writer);
       },
       "Method parameter type mismatch"},
      {"a narrower integer",
       [](auto* writer) {
         writer->AppendBool(true);
         writer->AppendString("crowns");
         writer->AppendInt32(12);
       },
       "Method parameter type mismatch"},
      {"one more",
       [](auto* writer) {
         WriteBalance(writer);
         writer->AppendByte(0);
       },
       "Too many parameters in a method call"},
  };
  for (const auto& test : kCases) {
    SCOPED_TRACE(test.name);
    error_.reset();
    const auto response = CallAnsweredWith(test.reply);
    ASSERT_TRUE(response);
    bool open = false;
    std::string currency = "as it was";
    int64_t sum = 5;
    EXPECT_FALSE(ExtractMethodCallResults(response.get(), &error_, &open, &currency, &sum));
    EXPECT_EQ("dbus org.freedesktop.DBus.Error.InvalidArgs: " + test.message, Tell(error_.get()));
    EXPECT_FALSE(open);
    EXPECT_EQ("as it was", currency);
    EXPECT_EQ(5, sum);
  }
}

TEST_F(CallsTest, AReplyWithUnexpectedResultsIsAnError) {
  EXPECT_TRUE(ExtractMethodCallResults(CallAnsweredWith({}).get(), &error_));
  EXPECT_FALSE(ExtractMethodCallResults(CallAnsweredWith(&WriteBalance).get(), &error_));
  EXPECT_EQ("dbus org.freedesktop.DBus.Error.InvalidArgs: Too many parameters in a method call",
            Tell(error_.get()));
}

TEST_F(CallsTest, ADictionaryOfTheWrongKindIsATypeMismatch) {
  const auto response = CallAnsweredWith(Write(std::map<std::string, std::string>{{"a", "b"}}));
  ASSERT_TRUE(response);
  VariantDictionary values;
  EXPECT_FALSE(ExtractMethodCallResults(response.get(), &error_, &values));
  EXPECT_EQ("dbus org.freedesktop.DBus.Error.InvalidArgs: Method parameter type mismatch",
            Tell(error_.get()));
}

TEST_F(CallsTest, AnAsynchronousCallRunsOneOfItsCallbacks) {
  bank_.Answer(kPath, kInterface, "Balance", &WriteBalance);
  bank_.Refuse(kPath, kInterface, "Pay", "org.example.Bank.Empty", "No money");
  std::vector<std::string> results;
  const base::Callback<void(bool, const std::string&, int64_t)> on_success =
      [&results](bool open, const std::string& currency, int64_t sum) {
        results.push_back((open ? "open " : "closed ") + currency + " " + std::to_string(sum));
      };
  const base::Callback<void()> on_done = [&results] { results.emplace_back("done"); };
  const ErrorCallback on_error = [&results](const Error* error) { results.push_back(Tell(error)); };
  CallMethod(-1, proxy_, kInterface, "Balance", on_success, on_error);
  CallMethod(-1, proxy_, kInterface, "Pay", on_done, on_error, std::string("rent"));
  CallMethod(-1, proxy_, kInterface, "Balance", on_done, on_error);
  CallMethod(-1, proxy_, kInterface, "Balance", base::Callback<void()>(), ErrorCallback());
  EXPECT_THAT(results, ElementsAre());
  ASSERT_TRUE(base::RunUntil([&results] { return results.size() == 3; }));
  Settle();
  EXPECT_THAT(results, ElementsAre("open crowns 12", "dbus org.example.Bank.Empty: No money",
                                   "dbus org.freedesktop.DBus.Error.InvalidArgs: "
                                   "Too many parameters in a method call"));
}

TEST_F(CallsTest, ASignalWithOtherArgumentsThanItsHandlerIsDropped) {
  std::vector<std::string> heard;
  const base::Callback<void(const std::string&)> handler = [&heard](const std::string& text) {
    heard.push_back(text);
  };
  bool connected = false;
  ConnectToSignal(
      proxy_, kInterface, "Opened", handler,
      [&connected](const std::string&, const std::string&, bool success) { connected = success; });
  ASSERT_TRUE(base::RunUntil([&connected] { return connected; }));
  bank_.Emit(kPath, kInterface, "Opened");
  bank_.Emit(kPath, kInterface, "Opened", Write(int32_t{7}));
  bank_.Emit(kPath, kInterface, "Opened", &WriteBalance);
  bank_.Emit(kPath, kInterface, "Opened", Write(std::string("at nine")));
  Settle();
  EXPECT_THAT(heard, ElementsAre("at nine"));
}

TEST(CallsDeathTest, ReadingFromNoMessageIsFatal) {
  std::string text;
  EXPECT_DEATH(static_cast<void>(ExtractMethodCallResults(nullptr, nullptr, &text)),
               "Check failed: message: Unable to extract parameters from a NULL message\\.");
}

}  // namespace
}  // namespace kestle::dbus_utils
