#include "bindings/pelmor_manager_adaptor.h"

#include <string>
#include <vector>

#include "dbus/testing/bus_fixture.h"
#include "dbus/testing/describe.h"
#include "kestle/dbus_utils/testing/remote_call.h"

namespace org::quintara::ap::Pelmor {
namespace {

using kestle::dbus_utils::Append;
using kestle::dbus_utils::CallFromOutside;
using kestle::dbus_utils::ErrorReply;
using kestle::dbus_utils::RemoteReply;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::StartsWith;

using Arguments = std::function<void(sd_bus_message*)>;
using Bytes = std::vector<uint8_t>;

constexpr char kRoot[] = "/org/quintara/ap/Pelmor";
constexpr char kPath[] = "/org/quintara/ap/Pelmor/Manager";
constexpr char kInterface[] = "org.quintara.ap.Pelmor.Manager";
constexpr char kInvalidArgs[] = "org.freedesktop.DBus.Error.InvalidArgs";
constexpr char kTooFew[] = "Too few parameters in a method call";
constexpr char kTooMany[] = "Too many parameters in a method call";
constexpr char kMismatch[] = "Method parameter type mismatch";

struct Log {
  std::string method;
  std::string type_url;
  Bytes data;
};
struct Metric {
  std::string name;
  std::map<std::string, std::string> labels;
  kestle::Any value;
};

class Recorder : public ManagerInterface {
 public:
  bool RecordMetric(kestle::ErrorPtr*, const std::string& name,
                    const std::map<std::string, std::string>& labels,
                    const kestle::Any& value) override {
    metrics_.push_back({name, labels, value});
    return true;
  }
  bool RecordOfflineData(kestle::ErrorPtr*, const std::string& type_url,
                         const Bytes& data) override {
    logs_.push_back({"RecordOfflineData", type_url, data});
    return true;
  }
  bool RecordStructuredData(kestle::ErrorPtr*, const std::string& type_url,
                            const Bytes& data) override {
    logs_.push_back({"RecordStructuredData", type_url, data});
    return true;
  }

  std::vector<Metric> metrics_;
  std::vector<Log> logs_;
};

class PelmorManagerAdaptor : public dbus::BusTest {
 protected:
  PelmorManagerAdaptor() {
    manager_.RegisterAsync([](bool success) { EXPECT_TRUE(success); });
    adaptor_.RegisterWithDBusObject(&object_);
    object_.RegisterAsync([](bool success) { EXPECT_TRUE(success); });
  }

  RemoteReply Call(const std::string& method, const Arguments& arguments) {
    return CallFromOutside({OwnUniqueName(), kPath, kInterface, method, arguments});
  }

  Recorder recorder_;
  ManagerAdaptor adaptor_{&recorder_};
  kestle::dbus_utils::ExportedObjectManager manager_{bus_, dbus::ObjectPath(kRoot)};
  kestle::dbus_utils::DBusObject object_{&manager_, bus_, dbus::ObjectPath(kPath)};
};

struct Fault {
  const char* what;
  Arguments arguments;
  const char* message;
};

const Fault kMetricFaults[] = {
    {"no body", {}, kTooFew},
    {"a name alone", Append("s", "x"), kTooFew},
    {"no value", Append("sa{ss}", "x", 0), kTooFew},
    {"a number for the name", Append("ia{ss}v", 1, 0, "i", 1), kMismatch},
    {"a number for the name, and nothing else", Append("i", 1), kMismatch},
    {"a number for the name, and one too many", Append("ia{ss}vi", 1, 0, "i", 1, 1), kMismatch},
    {"an object path for the name", Append("oa{ss}v", "/x", 0, "i", 1), kMismatch},
    {"text for the labels", Append("ssv", "x", "y", "i", 1), kMismatch},
    {"numbers among the labels", Append("sa{si}v", "x", 1, "k", 1, "i", 1), kMismatch},
    {"empty labels of numbers", Append("sa{si}v", "x", 0, "i", 1), kMismatch},
    {"variants among the labels", Append("sa{sv}v", "x", 1, "k", "s", "v", "i", 1), kMismatch},
    {"labels keyed by numbers", Append("sa{is}v", "x", 1, 1, "v", "i", 1), kMismatch},
    {"a list for the labels", Append("sasv", "x", 1, "k", "i", 1), kMismatch},
    {"wrong labels, and no value", Append("sas", "x", 0), kMismatch},
    {"a bare value", Append("sa{ss}i", "x", 0, 1), kMismatch},
    {"a fourth argument", Append("sa{ss}vs", "x", 0, "i", 1, "y"), kTooMany},
};

const Fault kLogFaults[] = {
    {"no body", {}, kTooFew},
    {"a type alone", Append("s", "x"), kTooFew},
    {"a number for the type", Append("iay", 1, 0), kMismatch},
    {"a number for the type, and nothing else", Append("i", 1), kMismatch},
    {"text for the data", Append("ss", "x", "y"), kMismatch},
    {"numbers for the data", Append("sai", "x", 1, 1), kMismatch},
    {"an empty list of texts for the data", Append("sas", "x", 0), kMismatch},
    {"a byte for the data", Append("sy", "x", 1), kMismatch},
    {"a variant for the data", Append("sv", "x", "ay", 0), kMismatch},
    {"a third argument", Append("says", "x", 0, "y"), kTooMany},
    {"a third argument that is data", Append("sayay", "x", 0, 0), kTooMany},
};

TEST_F(PelmorManagerAdaptor, AMetricWithWrongArgumentsIsRejected) {
  for (const Fault& fault : kMetricFaults)
    EXPECT_EQ(Call("RecordMetric", fault.arguments), ErrorReply(kInvalidArgs, fault.message))
        << fault.what;
  EXPECT_THAT(recorder_.metrics_, IsEmpty());
}

TEST_F(PelmorManagerAdaptor, ALogWithWrongArgumentsIsRejected) {
  for (const char* const method : {"RecordOfflineData", "RecordStructuredData"})
    for (const Fault& fault : kLogFaults)
      EXPECT_EQ(Call(method, fault.arguments), ErrorReply(kInvalidArgs, fault.message))
          << method << " with " << fault.what;
  EXPECT_THAT(recorder_.logs_, IsEmpty());
}

TEST_F(PelmorManagerAdaptor, AMetricArrivesWithAllItsArguments) {
  EXPECT_EQ(Call("RecordMetric", Append("sa{ss}v", "up", 2, "b", "2", "a", "", "x", int64_t{-7})),
            RemoteReply());
  ASSERT_EQ(recorder_.metrics_.size(), 1u);
  const Metric& metric = recorder_.metrics_[0];
  EXPECT_EQ(metric.name, "up");
  EXPECT_THAT(metric.labels, ElementsAre(Pair("a", ""), Pair("b", "2")));
  ASSERT_NE(metric.value.TryGet<int64_t>(), nullptr);
  EXPECT_EQ(*metric.value.TryGet<int64_t>(), -7);
}

TEST_F(PelmorManagerAdaptor, ARepeatedLabelKeepsItsLastValue) {
  Call("RecordMetric", Append("sa{ss}v", "up", 2, "a", "1", "a", "2", "b", 1));
  ASSERT_EQ(recorder_.metrics_.size(), 1u);
  EXPECT_THAT(recorder_.metrics_[0].labels, ElementsAre(Pair("a", "2")));
}

TEST_F(PelmorManagerAdaptor, BytesArriveUnchanged) {
  for (const char* const method : {"RecordOfflineData", "RecordStructuredData"}) {
    recorder_.logs_.clear();
    EXPECT_EQ(Call(method, Append("say", "x", 0)), RemoteReply());
    EXPECT_EQ(Call(method, Append("say", "", 4, 0x00, 0xff, 0x00, 0x41)), RemoteReply());
    ASSERT_EQ(recorder_.logs_.size(), 2u);
    EXPECT_EQ(recorder_.logs_[0].method, method);
    EXPECT_EQ(recorder_.logs_[0].type_url, "x");
    EXPECT_EQ(recorder_.logs_[0].data, Bytes());
    EXPECT_EQ(recorder_.logs_[1].type_url, "");
    EXPECT_EQ(recorder_.logs_[1].data, Bytes({0x00, 0xff, 0x00, 0x41}));
  }
}

TEST_F(PelmorManagerAdaptor, AVariantOfAnyTypeIsDecoded) {
  struct Case {
    kestle::TypeTag type;
    Arguments arguments;
  };
  using kestle::GetTypeTag;
  const Case cases[] = {
      {GetTypeTag<bool>(), Append("sa{ss}v", "x", 0, "b", 1)},
      {GetTypeTag<uint8_t>(), Append("sa{ss}v", "x", 0, "y", 1)},
      {GetTypeTag<int16_t>(), Append("sa{ss}v", "x", 0, "n", 1)},
      {GetTypeTag<uint16_t>(), Append("sa{ss}v", "x", 0, "q", 1)},
      {GetTypeTag<int32_t>(), Append("sa{ss}v", "x", 0, "i", 1)},
      {GetTypeTag<uint32_t>(), Append("sa{ss}v", "x", 0, "u", 1)},
      {GetTypeTag<int64_t>(), Append("sa{ss}v", "x", 0, "x", int64_t{1})},
      {GetTypeTag<uint64_t>(), Append("sa{ss}v", "x", 0, "t", uint64_t{1})},
      {GetTypeTag<double>(), Append("sa{ss}v", "x", 0, "d", 0.5)},
      {GetTypeTag<std::string>(), Append("sa{ss}v", "x", 0, "s", "y")},
      {GetTypeTag<dbus::ObjectPath>(), Append("sa{ss}v", "x", 0, "o", "/y")},
      {GetTypeTag<dbus::Signature>(), Append("sa{ss}v", "x", 0, "g", "ay")},
      {GetTypeTag<int32_t>(), Append("sa{ss}v", "x", 0, "v", "i", 1)},
      {GetTypeTag<Bytes>(), Append("sa{ss}v", "x", 0, "ay", 1, 1)},
      {GetTypeTag<kestle::Array>(), Append("sa{ss}v", "x", 0, "as", 1, "y")},
      {GetTypeTag<kestle::VariantDictionary>(), Append("sa{ss}v", "x", 0, "a{sv}", 1, "k", "i", 1)},
      {GetTypeTag<kestle::Dictionary>(), Append("sa{ss}v", "x", 0, "a{is}", 1, 1, "y")},
      {GetTypeTag<kestle::Structure>(), Append("sa{ss}v", "x", 0, "(is)", 1, "y")},
  };
  for (const Case& one : cases) {
    EXPECT_EQ(Call("RecordMetric", one.arguments), RemoteReply());
    ASSERT_FALSE(recorder_.metrics_.empty());
    EXPECT_EQ(kestle::GetUndecoratedTypeNameForTag(recorder_.metrics_.back().value.GetTypeTag()),
              kestle::GetUndecoratedTypeNameForTag(one.type));
  }
}

TEST_F(PelmorManagerAdaptor, TheBusRejectsAFileDescriptor) {
  const RemoteReply reply = Call("RecordMetric", Append("sa{ss}v", "x", 0, "h", 1));
  // Which error it is depends on the bus.
  EXPECT_THAT(reply.error_name, StartsWith("org.freedesktop.DBus.Error."));
  EXPECT_THAT(recorder_.metrics_, IsEmpty());
}

TEST_F(PelmorManagerAdaptor, IntrospectionNamesTheArguments) {
  const RemoteReply reply = CallFromOutside(
      {OwnUniqueName(), kPath, "org.freedesktop.DBus.Introspectable", "Introspect"});
  ASSERT_EQ(reply.arguments.size(), 1u);
  EXPECT_THAT(reply.arguments[0], HasSubstr(R"( <interface name="org.quintara.ap.Pelmor.Manager">
  <method name="RecordMetric">
   <arg type="s" name="name" direction="in"/>
   <arg type="a{ss}" name="labels" direction="in"/>
   <arg type="v" name="value" direction="in"/>
  </method>
  <method name="RecordOfflineData">
   <arg type="s" name="type_url" direction="in"/>
   <arg type="ay" name="data" direction="in"/>
  </method>
  <method name="RecordStructuredData">
   <arg type="s" name="type_url" direction="in"/>
   <arg type="ay" name="data" direction="in"/>
  </method>
 </interface>
)"));
}

TEST_F(PelmorManagerAdaptor, TheObjectManagerListsTheObjectWithItsInterface) {
  const RemoteReply reply = CallFromOutside(
      {OwnUniqueName(), kRoot, "org.freedesktop.DBus.ObjectManager", "GetManagedObjects"});
  ASSERT_EQ(reply.arguments.size(), 1u);
  EXPECT_THAT(reply.arguments[0], HasSubstr("{\"" + std::string(kPath) + "\": {"));
  EXPECT_THAT(reply.arguments[0], HasSubstr("\"" + std::string(kInterface) + "\": {}"));
}

}  // namespace
}  // namespace org::quintara::ap::Pelmor
