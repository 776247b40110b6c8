#include "ap/pelmor/daemon.h"

#include <gtest/gtest.h>

#include <memory>

#include "dbus/testing/private_bus.h"

namespace varelnos::ap {
namespace {

// Exports a method of the daemon's at its path first, so that the daemon's own export fails.
class DaemonWithATakenPath : public Daemon {
 protected:
  void RegisterDBusObjectsAsync(kestle::dbus_utils::AsyncEventSequencer* sequencer) override {
    occupant_ = std::make_unique<kestle::dbus_utils::DBusObject>(
        nullptr, bus_, dbus::ObjectPath("/org/quintara/ap/Pelmor/Manager"));
    occupant_->AddOrGetInterface("org.quintara.ap.Pelmor.Manager")
        ->AddSimpleMethodHandlerWithError("RecordMetric", {}, this,
                                          &DaemonWithATakenPath::TakeNothing);
    occupant_->RegisterAsync([](bool success) { ASSERT_TRUE(success); });
    Daemon::RegisterDBusObjectsAsync(sequencer);
  }

 private:
  bool TakeNothing(kestle::ErrorPtr* /*error*/) { return true; }

  std::unique_ptr<kestle::dbus_utils::DBusObject> occupant_;
};

TEST(DaemonTest, AnExportThatFailsIsFatal) {
  dbus::PrivateBus bus;
  EXPECT_DEATH(static_cast<void>(DaemonWithATakenPath().Run()),
               "\\] Pelmor\\.Manager\\.RegisterAsync\\(\\) failed\\.");
}

}  // namespace
}  // namespace varelnos::ap
