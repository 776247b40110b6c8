#include "ap/pelmor/daemon.h"

#include <gtest/gtest.h>

#include <memory>

#include "dbus/testing/private_bus.h"

namespace varelnos::ap {
namespace {

// Exports a method at the daemon's path first, so that the daemon's export fails.
class DaemonWithAnOccupiedPath : public Daemon {
 protected:
  void RegisterDBusObjectsAsync(kestle::dbus_utils::AsyncEventSequencer* sequencer) override {
    occupant_ = std::make_unique<kestle::dbus_utils::DBusObject>(
        nullptr, bus_, dbus::ObjectPath("/org/quintara/ap/Pelmor/Manager"));
    occupant_->AddOrGetInterface("org.quintara.ap.Pelmor.Manager")
        ->AddSimpleMethodHandlerWithError("RecordMetric", {}, this,
                                          &DaemonWithAnOccupiedPath::DoNothing);
    occupant_->RegisterAsync([](bool success) { ASSERT_TRUE(success); });
    Daemon::RegisterDBusObjectsAsync(sequencer);
  }

 private:
  bool DoNothing(kestle::ErrorPtr* /*error*/) { return true; }

  std::unique_ptr<kestle::dbus_utils::DBusObject> occupant_;
};

TEST(DaemonTest, AFailedExportIsFatal) {
  dbus::PrivateBus bus;
  EXPECT_DEATH(static_cast<void>(DaemonWithAnOccupiedPath().Run()),
               "\\] Pelmor\\.Manager\\.RegisterAsync\\(\\) failed\\.");
}

}  // namespace
}  // namespace varelnos::ap
