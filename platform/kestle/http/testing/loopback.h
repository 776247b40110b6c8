// Loopback sockets for fake servers.
#pragma once

#include <cstdint>
#include <string>

#include "base/scoped_fd.h"

namespace kestle::http {

struct LoopbackSocket {
  // Bound to a free port; does not listen.
  LoopbackSocket();

  base::ScopedFd fd;
  uint16_t port = 0;
};

// False if the peer has disconnected.
[[nodiscard]] bool SendAll(int fd, const std::string& bytes);

}  // namespace kestle::http
