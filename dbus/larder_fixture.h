// A fixture with a fake Larder on a private bus, and its proxies.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "bindings/larder_proxies.h"
#include "dbus/testing/bus_fixture.h"
#include "kestle/dbus_utils/testing/fake_service.h"

namespace org::quintara::Larder {

inline constexpr char kService[] = "org.quintara.Larder";
inline constexpr char kRoot[] = "/org/quintara/Larder";
inline constexpr char kManager[] = "org.quintara.Larder.Manager";
inline constexpr char kManagerPath[] = "/org/quintara/Larder/Manager";
inline constexpr char kCommand[] = "org.quintara.Larder.Command";
inline constexpr char kCommandPath[] = "/org/quintara/Larder/commands/1";

class LarderTest : public dbus::BusTest {
 protected:
  LarderTest() {
    larder_.AddObjectManager(kRoot);
    proxies_->SetManagerAddedCallback(
        [this](ManagerProxy*) { events_.emplace_back("manager added"); });
    proxies_->SetManagerRemovedCallback([this](const dbus::ObjectPath& path) {
      events_.push_back("manager removed " + path.value());
    });
    proxies_->SetCommandAddedCallback([this](CommandProxy* command) {
      events_.push_back("command added " + command->GetObjectPath().value());
    });
    proxies_->SetCommandRemovedCallback([this](const dbus::ObjectPath& path) {
      events_.push_back("command removed " + path.value());
    });
  }

  [[nodiscard]] bool RunUntilEvents(size_t count) {
    return base::RunUntil([this, count] { return events_.size() >= count; });
  }
  ManagerProxy* AddManager(const kestle::VariantDictionary& properties = {},
                           const std::string& path = kManagerPath) {
    const size_t before = events_.size();
    larder_.AddObject(path, kManager, properties);
    EXPECT_TRUE(RunUntilEvents(before + 1));
    return proxies_->GetManagerProxies().at(dbus::ObjectPath(path)).get();
  }
  CommandProxy* AddCommand(const kestle::VariantDictionary& properties = {},
                           const std::string& path = kCommandPath) {
    const size_t before = events_.size();
    larder_.AddObject(path, kCommand, properties);
    EXPECT_TRUE(RunUntilEvents(before + 1));
    return proxies_->GetCommandProxies().at(dbus::ObjectPath(path)).get();
  }

  kestle::dbus_utils::FakeService larder_{kService};
  std::vector<std::string> events_;
  std::unique_ptr<ObjectManagerProxy> proxies_ = std::make_unique<ObjectManagerProxy>(bus_);
};

}  // namespace org::quintara::Larder
