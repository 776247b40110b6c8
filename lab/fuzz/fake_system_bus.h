// A fake system bus within the process, without a daemon, threads or real time.
//
// While an instance exists, every connection to the system bus is connected to it: first the one
// for remote objects, then the one of the service. Calls that the first sends are kept until the
// target answers them; a connection receives only the bytes that the target delivers. A callback
// answers blocking calls. One instance at a time.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "base/scoped_fd.h"
#include "dbus/message.h"

namespace fuzz {

class FakeSystemBus {
 public:
  // Returns the reply to a sealed call; null if the call times out.
  using BlockingCallHandler = std::function<dbus::MessagePtr(sd_bus_message* call)>;
  struct Call {
    uint32_t serial = 0;
    std::string bytes;

    [[nodiscard]] bool IsOf(const std::string& member) const;
  };

  explicit FakeSystemBus(BlockingCallHandler on_blocking_call);
  ~FakeSystemBus();
  FakeSystemBus(const FakeSystemBus&) = delete;
  FakeSystemBus& operator=(const FakeSystemBus&) = delete;

  enum class Side { kClient, kService };

  // Delivers the message, whose bytes `corrupt` may have changed.
  void Deliver(Side side, sd_bus_message* message,
               const std::function<void(std::string*)>& corrupt = {});
  void HangUp(Side side);
  // Removes and returns the calls that the client has sent.
  std::vector<Call> TakeCalls();

  // For the functions of sd-bus that this replaces.
  void Connect(sd_bus* connection);
  void Admit(sd_bus* connection);
  int Answer(sd_bus_message* call, sd_bus_error* error, sd_bus_message** reply);

 private:
  struct Peer {
    const sd_bus* connection;
    // The bus's end of the connection.
    base::ScopedFd server;
  };

  [[nodiscard]] const base::ScopedFd& ServerOf(Side side) const;

  const BlockingCallHandler on_blocking_call_;
  // In the order in which they connected.
  std::vector<Peer> peers_;
  std::string unread_;
  uint64_t last_cookie_ = uint64_t{1} << 20;
};

}  // namespace fuzz
