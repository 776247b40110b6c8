#include "dbus/bus.h"

#include <cstdlib>
#include <string>

#include "dbus/testing/bus_test.h"
#include "dbus/testing/fake_service.h"

namespace dbus {
namespace {

constexpr char kName[] = "org.example.Name";

TEST_F(BusTest, ConnectingToNoBusSaysWhy) {
  setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
  std::string why;
  EXPECT_FALSE(Bus::ConnectToSystemBus(&why));
  EXPECT_EQ("No such file or directory", why);
}

TEST_F(BusTest, NoDescriptorsAreLetThrough) {
  EXPECT_EQ(0, sd_bus_can_send(bus_->connection(), SD_BUS_TYPE_UNIX_FD));
}

TEST_F(BusTest, AFreeNameIsTaken) {
  std::string why;
  EXPECT_TRUE(bus_->RequestOwnership(kName, &why)) << why;
  EXPECT_TRUE(bus_->RequestOwnership(kName, &why)) << "ours already: " << why;
}

TEST_F(BusTest, ANameWithAnOwnerIsNotWaitedFor) {
  FakeService owner(kName);
  std::string why;
  EXPECT_FALSE(bus_->RequestOwnership(kName, &why));
  EXPECT_EQ("The name org.example.Name has another owner", why);
  owner.ReleaseName();
  Settle();
  owner.TakeName();
}

TEST_F(BusTest, ANameThatIsNoneIsRefused) {
  std::string why;
  EXPECT_FALSE(bus_->RequestOwnership("no name", &why));
  EXPECT_EQ("Invalid argument", why);
}

TEST_F(BusTest, TheLossOfTheBusIsToldOnceAndDoesNotEndTheLoop) {
  int losses = 0;
  bus_->SetDisconnectedCallback([&losses] { ++losses; });
  Settle();
  EXPECT_EQ(0, losses);
  private_bus_.Stop();
  EXPECT_TRUE(base::RunUntil([&losses] { return losses > 0; }));
  bool posted = false;
  loop_.PostTask([&posted] { posted = true; });
  EXPECT_TRUE(base::RunUntil([&posted] { return posted; }));
  EXPECT_EQ(1, losses);
}

TEST_F(BusTest, AnObjectHasOneProxyAndOneManager) {
  const ObjectPath path("/a");
  EXPECT_EQ(bus_->GetObjectProxy(kName, path), bus_->GetObjectProxy(kName, path));
  EXPECT_NE(bus_->GetObjectProxy(kName, path), bus_->GetObjectProxy(kName, ObjectPath("/b")));
  EXPECT_NE(bus_->GetObjectProxy(kName, path), bus_->GetObjectProxy("org.example.Other", path));
  EXPECT_EQ(bus_->GetObjectManager(kName, path), bus_->GetObjectManager(kName, path));
}

TEST_F(BusTest, TheConnectionOutlivesTheRunOfTheLoop) {
  FakeService remote(kName);
  remote.Answer("/a", kName, "Do");
  loop_.PostTask([this] { loop_.Quit(3); });
  EXPECT_EQ(3, loop_.Run());
  ObjectProxy* const proxy = bus_->GetObjectProxy(kName, ObjectPath("/a"));
  const auto response = proxy->CallMethodAndBlock(MethodCall(*proxy, kName, "Do"), -1);
  ASSERT_TRUE(response);
  EXPECT_FALSE(response->IsError());
  bus_.reset();
}

}  // namespace
}  // namespace dbus
