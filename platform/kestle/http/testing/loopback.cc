#include "kestle/http/testing/loopback.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "base/logging.h"

namespace kestle::http {

LoopbackSocket::LoopbackSocket() : fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  CHECK(bind(fd.get(), generic, size) == 0);
  CHECK(getsockname(fd.get(), generic, &size) == 0);
  port = ntohs(address.sin_port);
}

bool SendAll(int fd, const std::string& bytes) {
  for (size_t sent = 0; sent < bytes.size();) {
    const ssize_t count = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (count < 0) return false;
    sent += static_cast<size_t>(count);
  }
  return true;
}

}  // namespace kestle::http
