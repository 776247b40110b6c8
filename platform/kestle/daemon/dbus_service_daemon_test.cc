#include "kestle/daemon/dbus_service_daemon.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/testing/log_capture.h"
#include "dbus/testing/fake_service.h"
#include "dbus/testing/private_bus.h"
#include "kestle/daemon/testing/supervisor.h"
#include "kestle/dbus_utils/calls.h"

namespace kestle {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr char kService[] = "org.example.Service";
constexpr char kRoot[] = "/org/example/Service";
constexpr int kUnavailable = 69;

class TestDaemon : public DBusServiceDaemon {
 public:
  TestDaemon() : DBusServiceDaemon(kService, dbus::ObjectPath(kRoot)) {}

  int OnInit() override {
    const int result = DBusServiceDaemon::OnInit();
    events_.push_back("init " + std::to_string(result));
    if (result == 0) {
      events_.emplace_back(NameIsTaken() ? "owner" : "no owner");
      base::MessageLoop::Current()->PostTask(in_loop_);
    }
    return result;
  }
  void OnShutdown(int* exit_code) override {
    events_.push_back("shutdown " + std::to_string(*exit_code));
  }
  void RegisterDBusObjectsAsync(dbus_utils::AsyncEventSequencer* sequencer) override {
    EXPECT_NE(object_manager_, nullptr);
    events_.emplace_back(NameIsTaken() ? "objects after the name" : "objects before the name");
    sequencer->GetHandler("The object failed.", true).Run(exports_);
  }

  bool NameIsTaken() {
    dbus::ObjectProxy* const proxy =
        bus_->GetObjectProxy("org.freedesktop.DBus", dbus::ObjectPath("/org/freedesktop/DBus"));
    const auto response = dbus_utils::CallMethodAndBlock(
        proxy, "org.freedesktop.DBus", "NameHasOwner", nullptr, std::string(kService));
    bool taken = false;
    return response && dbus_utils::ExtractMethodCallResults(response.get(), nullptr, &taken) &&
           taken;
  }

  // Runs on the loop, right after the start.
  base::Callback<void()> in_loop_ = [this] { Quit(); };
  bool exports_ = true;
  std::vector<std::string> events_;
};

TEST(DBusServiceDaemon, TheNameIsAcquiredAfterTheObjectsAreExported) {
  dbus::PrivateBus bus;
  base::LogCapture log;
  TestDaemon daemon;
  EXPECT_EQ(daemon.Run(), 0);
  EXPECT_THAT(daemon.events_,
              ElementsAre("objects before the name", "init 0", "owner", "shutdown 0"));
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(DBusServiceDaemon, ATerminationSignalEndsItWithoutALogLine) {
  dbus::PrivateBus bus;
  base::LogCapture log;
  {
    TestDaemon daemon;
    daemon.in_loop_ = [] { raise(SIGTERM); };
    EXPECT_EQ(daemon.Run(), 0);
  }
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(DBusServiceDaemon, CallersUseAnotherConnectionThanItsBlockingCalls) {
  class Separated : public TestDaemon {
   public:
    sd_bus* OfCalls() { return bus_->connection(); }
    sd_bus* OfCallers() { return bus_->service_connection(); }
  };
  dbus::PrivateBus bus;
  Separated daemon;
  EXPECT_EQ(daemon.Run(), 0);
  EXPECT_NE(daemon.OfCalls(), daemon.OfCallers());
}

TEST(DBusServiceDaemon, TheNameIsReleasedAtTheEnd) {
  dbus::PrivateBus bus;
  EXPECT_EQ(TestDaemon().Run(), 0);
  EXPECT_EQ(TestDaemon().Run(), 0);
}

TEST(DBusServiceDaemon, WithoutTheBusItExitsAsUnavailable) {
  setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
  Supervisor supervisor;
  base::LogCapture log;
  TestDaemon daemon;
  EXPECT_EQ(daemon.Run(), kUnavailable);
  EXPECT_THAT(daemon.events_, ElementsAre("init 69"));
  EXPECT_THAT(log.lines(), ElementsAre("ERROR Unable to connect to the system bus: "
                                       "No such file or directory"));
  EXPECT_THAT(supervisor.TakeNotices(), IsEmpty());
  unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
}

TEST(DBusServiceDaemon, WithItsNameTakenItExitsAsUnavailable) {
  dbus::PrivateBus bus;
  dbus::FakeService other(kService);
  base::LogCapture log;
  TestDaemon daemon;
  EXPECT_EQ(daemon.Run(), kUnavailable);
  EXPECT_THAT(daemon.events_, ElementsAre("objects after the name", "init 69"));
  EXPECT_THAT(log.lines(), ElementsAre(StartsWith("ERROR Unable to take the service name "
                                                  "org.example.Service: ")));
}

TEST(DBusServiceDaemon, WhenTheBusIsLostItExitsAsUnavailable) {
  dbus::PrivateBus bus;
  base::LogCapture log;
  {
    TestDaemon daemon;
    daemon.in_loop_ = [&bus] { bus.Stop(); };
    EXPECT_EQ(daemon.Run(), kUnavailable);
    EXPECT_THAT(daemon.events_,
                ElementsAre("objects before the name", "init 0", "owner", "shutdown 69"));
  }
  EXPECT_THAT(log.lines(), ElementsAre("ERROR Lost the connection to the system bus"));
}

TEST(DBusServiceDaemon, AFailedExportIsFatal) {
  dbus::PrivateBus bus;
  const auto run = [] {
    TestDaemon daemon;
    daemon.exports_ = false;
    static_cast<void>(daemon.Run());
  };
  EXPECT_DEATH(run(), "\\] The object failed\\.\n");
}

}  // namespace
}  // namespace kestle
