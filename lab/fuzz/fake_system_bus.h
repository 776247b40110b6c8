// The other side of the system bus, in the process itself: no daemon, no thread, no real time.
//
// While one lives, whoever connects to the system bus is connected to it: first the connection for
// remote objects, then the one of the service. What the first sends is kept as calls that wait for
// an answer; what either gets is what a target delivers, byte for byte. Blocking calls are answered
// by a callback. One at a time.
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
  // Gives the reply to a sealed call; null for none within its time-out.
  using BlockingCallHandler = std::function<dbus::MessagePtr(sd_bus_message* call)>;
  struct Call {
    uint32_t serial = 0;
    std::string bytes;

    bool IsOf(const std::string& member) const;
  };

  explicit FakeSystemBus(BlockingCallHandler on_blocking_call);
  ~FakeSystemBus();
  FakeSystemBus(const FakeSystemBus&) = delete;
  FakeSystemBus& operator=(const FakeSystemBus&) = delete;

  enum class Side { kClient, kService };

  // Delivers what is left of the message after `spoil`, if there is one.
  void Deliver(Side side, sd_bus_message* message,
               const std::function<void(std::string*)>& spoil = {});
  void HangUp(Side side);
  // Takes the calls that the client has sent since the last time.
  std::vector<Call> TakeCalls();

  // For the functions of sd-bus that this stands in for.
  void Connect(sd_bus* connection);
  void Admit(sd_bus* connection);
  int Answer(sd_bus_message* call, sd_bus_error* error, sd_bus_message** reply);

 private:
  struct Peer {
    const sd_bus* connection;
    // The bus's end of it.
    base::ScopedFd server;
  };

  const base::ScopedFd& ServerOf(Side side) const;

  const BlockingCallHandler on_blocking_call_;
  // In the order of connecting.
  std::vector<Peer> peers_;
  std::string unread_;
  uint64_t last_cookie_ = uint64_t{1} << 20;
};

}  // namespace fuzz
