// A message bus of a test's own that stands in for the system bus: DBUS_SYSTEM_BUS_ADDRESS names it
// while it lives. Everybody may do everything on it. It dies with the test at the latest.
#pragma once

#include <sys/types.h>

#include <string>

namespace dbus {

class PrivateBus {
 public:
  PrivateBus();
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  [[nodiscard]] const std::string& address() const { return address_; }
  // Kills the bus; every connection to it is lost.
  void Stop();

 private:
  std::string folder_;
  std::string address_;
  pid_t daemon_ = -1;
};

}  // namespace dbus
