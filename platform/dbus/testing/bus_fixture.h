// A fixture with a private bus and a connection to it.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "base/message_loop.h"
#include "base/testing/run_until.h"
#include "dbus/bus.h"
#include "dbus/testing/private_bus.h"

namespace dbus {

class BusTest : public ::testing::Test {
 protected:
  BusTest() {
    base::ErrorPtr error;
    bus_ = Bus::ConnectToSystemBus(&error);
    EXPECT_TRUE(bus_) << error->GetMessage();
  }

  // Handles everything that the bus has sent so far.
  void Settle() {
    bool settled = false;
    Driver()->CallMethod(MethodCall(*Driver(), "org.freedesktop.DBus.Peer", "Ping"),
                         ObjectProxy::kTimeoutUseDefault,
                         [&settled](const Response&) { settled = true; });
    ASSERT_TRUE(base::RunUntil([&settled] { return settled; }));
  }

  // The bus's own object.
  ObjectProxy* Driver() {
    return bus_->GetObjectProxy("org.freedesktop.DBus", ObjectPath("/org/freedesktop/DBus"));
  }

  std::string OwnUniqueName() {
    const char* name = nullptr;
    EXPECT_GE(sd_bus_get_unique_name(bus_->connection(), &name), 0);
    return name;
  }

  // A connection that, unlike `bus_`, can receive file descriptors.
  static Connection ConnectWithDescriptors() {
    sd_bus* connection = nullptr;
    EXPECT_GE(sd_bus_open_system(&connection), 0);
    return Connection(connection);
  }

  base::MessageLoop loop_;
  PrivateBus private_bus_;
  scoped_refptr<Bus> bus_;
};

}  // namespace dbus
