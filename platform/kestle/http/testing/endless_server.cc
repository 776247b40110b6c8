#include "kestle/http/testing/endless_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <utility>

#include "base/logging.h"

namespace kestle::http {

namespace {

bool SendAll(int fd, const std::string& bytes) {
  for (size_t sent = 0; sent < bytes.size();) {
    const ssize_t count = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (count < 0) return false;
    sent += static_cast<size_t>(count);
  }
  return true;
}

}  // namespace

EndlessServer::EndlessServer(std::string start, std::string again, std::chrono::milliseconds pause)
    : start_(std::move(start)),
      again_(std::move(again)),
      pause_(pause),
      listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  CHECK(bind(listener_.get(), generic, size) == 0);
  CHECK(listen(listener_.get(), 1) == 0);
  CHECK(getsockname(listener_.get(), generic, &size) == 0);
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { Run(); });
}

EndlessServer::~EndlessServer() {
  // Unblocks the thread from accepting or sending.
  shutdown(listener_.get(), SHUT_RDWR);
  shutdown(client_, SHUT_RDWR);
  thread_.join();
}

void EndlessServer::Run() {
  const base::ScopedFd client(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
  client_ = client.get();
  char first = 0;
  if (recv(client.get(), &first, 1, 0) == 1 && SendAll(client.get(), start_)) {
    // The rest of the request is not read, so only the disconnection is an event here.
    pollfd hang_up{client.get(), POLLRDHUP, 0};
    while (poll(&hang_up, 1, static_cast<int>(pause_.count())) == 0 &&
           SendAll(client.get(), again_))
      ++repeats_;
  }
  client_ = -1;
  has_ended_ = true;
}

}  // namespace kestle::http
