#include "kestle/daemon/testing/supervisor.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <cstddef>
#include <cstdlib>

#include "base/logging.h"

namespace kestle {

Supervisor::Supervisor() : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  // Without a name to bind to, it gets a unique abstract one.
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  auto* const raw = reinterpret_cast<sockaddr*>(&address);
  CHECK(bind(socket_.get(), raw, sizeof(address.sun_family)) == 0);
  socklen_t size = sizeof(address);
  CHECK(getsockname(socket_.get(), raw, &size) == 0);
  const size_t name_size = size - offsetof(sockaddr_un, sun_path) - 1;
  setenv("NOTIFY_SOCKET", ("@" + std::string(address.sun_path + 1, name_size)).c_str(), 1);
}

Supervisor::~Supervisor() { unsetenv("NOTIFY_SOCKET"); }

std::vector<std::string> Supervisor::TakeNotices() {
  std::vector<std::string> notices;
  std::array<char, 256> buffer;
  ssize_t size = 0;
  while ((size = recv(socket_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT)) > 0)
    notices.emplace_back(buffer.data(), static_cast<size_t>(size));
  return notices;
}

}  // namespace kestle
