#include "ap/common/cloud_device.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/message_loop.h"
#include "base/testing/run_until.h"
#include "dbus/testing/call_timeouts.h"
#include "dbus/testing/private_bus.h"
#include "kestle/dbus_utils/testing/fake_service.h"

namespace varelnos::ap {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr char kName[] = "org.quintara.Larder";
constexpr char kManagerPath[] = "/org/quintara/Larder/Manager";
constexpr char kManagerInterface[] = "org.quintara.Larder.Manager";

class CloudDeviceTest : public testing::Test {
 protected:
  CloudDeviceTest() {
    base::ErrorPtr error;
    connection_ = dbus::Bus::ConnectToSystemBus(&error);
    EXPECT_NE(connection_, nullptr) << error->GetMessage();
    proxies_ = std::make_unique<org::quintara::Larder::ObjectManagerProxy>(connection_);
    device_ = std::make_unique<CloudDevice>(proxies_.get());
  }

  void StartLarder(const kestle::VariantDictionary& properties) {
    larder_ = std::make_unique<kestle::dbus_utils::FakeService>(kName);
    larder_->AddObjectManager("/org/quintara/Larder");
    larder_->AddObject(kManagerPath, kManagerInterface, properties);
    ASSERT_TRUE(base::RunUntil([&] { return !proxies_->GetManagerProxies().empty(); }));
  }
  void Answer(const std::string& method, const std::string& text) {
    larder_->Answer(kManagerPath, kManagerInterface, method,
                    [=](dbus::MessageWriter* writer) { writer->AppendString(text); });
  }
  void ExpectUnavailable() {
    ASSERT_NE(error_, nullptr);
    EXPECT_EQ(error_->GetDomain(), "ap");
    EXPECT_EQ(error_->GetCode(), "service_unavailable");
    EXPECT_EQ(error_->GetMessage(), "Larder is not available");
    EXPECT_STREQ(error_->GetLocation().function, "GetManagerProxy");
    EXPECT_EQ(error_->inner(), nullptr);
    error_.reset();
  }

  base::MessageLoop loop_;
  dbus::PrivateBus bus_;
  scoped_refptr<dbus::Bus> connection_;
  std::unique_ptr<org::quintara::Larder::ObjectManagerProxy> proxies_;
  std::unique_ptr<kestle::dbus_utils::FakeService> larder_;
  std::unique_ptr<CloudDevice> device_;
  kestle::ErrorPtr error_;
  std::string out_ = "before";
};

TEST_F(CloudDeviceTest, WithoutLarderEveryOperationFailsWithOneError) {
  EXPECT_FALSE(device_->RegisterDevice("ticket", &out_, &error_));
  ExpectUnavailable();
  EXPECT_FALSE(device_->SetName("name", &error_));
  ExpectUnavailable();
  EXPECT_FALSE(device_->CheckDeviceRegistered(&out_, &error_));
  ExpectUnavailable();
  EXPECT_FALSE(device_->GetModelId(&out_, &error_));
  ExpectUnavailable();
  EXPECT_EQ(out_, "before");
}

TEST_F(CloudDeviceTest, TheErrorSinkMayBeNull) {
  EXPECT_FALSE(device_->CheckDeviceRegistered(&out_, nullptr));
}

TEST_F(CloudDeviceTest, TheErrorIsAddedToTheCallersChain) {
  kestle::Error::AddTo(&error_, "ap", "generic_error", "what was there before");
  EXPECT_FALSE(device_->CheckDeviceRegistered(&out_, &error_));
  EXPECT_EQ(error_->GetCode(), "service_unavailable");
  ASSERT_NE(error_->inner(), nullptr);
  EXPECT_EQ(error_->inner()->GetCode(), "generic_error");
}

TEST_F(CloudDeviceTest, TheDeviceIdIsTheReplyOfLarder) {
  StartLarder({});
  Answer("CheckDeviceRegistered", "device-1");
  EXPECT_TRUE(device_->CheckDeviceRegistered(&out_, &error_));
  EXPECT_EQ(out_, "device-1");
  Answer("CheckDeviceRegistered", "");
  EXPECT_TRUE(device_->CheckDeviceRegistered(&out_, &error_));
  EXPECT_EQ(out_, "");
}

TEST_F(CloudDeviceTest, CallsToLarderTimeOutAfter25Seconds) {
  StartLarder({});
  dbus::TakeBlockingCallTimeouts();
  // Only the timeouts matter.
  (void)device_->RegisterDevice("ticket", &out_, nullptr);
  (void)device_->SetName("name", nullptr);
  (void)device_->CheckDeviceRegistered(&out_, nullptr);
  EXPECT_THAT(dbus::TakeBlockingCallTimeouts(), ElementsAre(25'000'000, 25'000'000, 25'000'000));
}

TEST_F(CloudDeviceTest, RegistrationSendsTheTicket) {
  StartLarder({});
  Answer("RegisterDevice", "device-1");
  EXPECT_TRUE(device_->RegisterDevice("ticket", &out_, &error_));
  EXPECT_EQ(out_, "device-1");
  EXPECT_EQ(larder_->CallCount("RegisterDevice"), 1);
  EXPECT_THAT(larder_->LastArguments("RegisterDevice"), ElementsAre(HasSubstr("ticket")));
}

TEST_F(CloudDeviceTest, RenamingSendsTheCachedDescriptionAndLocation) {
  StartLarder({{"Description", std::string("on the roof")}, {"Location", std::string("north")}});
  larder_->Answer(kManagerPath, kManagerInterface, "UpdateDeviceInfo");
  EXPECT_TRUE(device_->SetName("ap one", &error_));
  EXPECT_THAT(larder_->LastArguments("UpdateDeviceInfo"),
              ElementsAre(HasSubstr("ap one"), HasSubstr("on the roof"), HasSubstr("north")));
}

TEST_F(CloudDeviceTest, RenamingSendsEmptyTextsBeforeTheyAreKnown) {
  StartLarder({});
  larder_->Answer(kManagerPath, kManagerInterface, "UpdateDeviceInfo");
  EXPECT_TRUE(device_->SetName("ap one", &error_));
  const std::vector<std::string> sent = larder_->LastArguments("UpdateDeviceInfo");
  EXPECT_THAT(sent, ElementsAre(R"("ap one")", R"("")", R"("")"));
}

TEST_F(CloudDeviceTest, TheModelIdIsReadFromTheCacheWithoutACall) {
  StartLarder({{"ModelId", std::string("AAAAA")}});
  EXPECT_TRUE(device_->GetModelId(&out_, &error_));
  EXPECT_EQ(out_, "AAAAA");
  EXPECT_THAT(larder_->Calls(), testing::Each(HasSubstr("GetManagedObjects")));
}

TEST_F(CloudDeviceTest, TheModelIdIsEmptyBeforeItsFirstAnnouncement) {
  StartLarder({});
  EXPECT_TRUE(device_->GetModelId(&out_, &error_));
  EXPECT_EQ(out_, "");
}

TEST_F(CloudDeviceTest, AnErrorReplyIsPassedOn) {
  StartLarder({});
  larder_->Refuse(kManagerPath, kManagerInterface, "CheckDeviceRegistered", "org.example.Busy",
                  "later");
  EXPECT_FALSE(device_->CheckDeviceRegistered(&out_, &error_));
  ASSERT_NE(error_, nullptr);
  EXPECT_EQ(error_->GetCode(), "org.example.Busy");
  EXPECT_EQ(error_->GetMessage(), "later");
}

TEST_F(CloudDeviceTest, AfterLarderStopsTheServiceIsUnavailable) {
  StartLarder({});
  larder_.reset();
  ASSERT_TRUE(base::RunUntil([&] { return proxies_->GetManagerProxies().empty(); }));
  EXPECT_FALSE(device_->CheckDeviceRegistered(&out_, &error_));
  ExpectUnavailable();
}

TEST_F(CloudDeviceTest, UsesTheManagerWithTheLowestPath) {
  StartLarder({});
  larder_->AddObject("/org/quintara/Larder/Another", kManagerInterface,
                     {{"ModelId", std::string("lowest")}});
  ASSERT_TRUE(base::RunUntil([&] { return proxies_->GetManagerProxies().size() == 2; }));
  EXPECT_TRUE(device_->GetModelId(&out_, &error_));
  EXPECT_EQ(out_, "lowest");
}

}  // namespace
}  // namespace varelnos::ap
