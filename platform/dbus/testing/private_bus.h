// A private message bus in place of the system bus: DBUS_SYSTEM_BUS_ADDRESS points to it while it
// lives. Its policy allows everything. It is killed when the test process exits, if not before.
#pragma once

#include <sys/types.h>

#include <string>

namespace dbus {

class PrivateBus {
 public:
  // `rules` are added to the policy.
  explicit PrivateBus(const std::string& rules = "");
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  [[nodiscard]] const std::string& address() const { return address_; }
  // Kills the bus; every connection to it is lost.
  void Stop();
  // The bus reads nothing until `Resume`.
  void Pause() const;
  void Resume() const;

 private:
  std::string folder_;
  std::string address_;
  pid_t daemon_ = -1;
};

}  // namespace dbus
