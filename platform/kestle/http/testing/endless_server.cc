#include "kestle/http/testing/endless_server.h"

#include <poll.h>
#include <sys/socket.h>

#include <utility>

#include "base/logging.h"

namespace kestle::http {

EndlessServer::EndlessServer(std::string start, std::string again, std::chrono::milliseconds pause)
    : start_(std::move(start)), again_(std::move(again)), pause_(pause) {
  CHECK(listen(listener_.fd.get(), 1) == 0);
  thread_ = std::thread([this] { Run(); });
}

EndlessServer::~EndlessServer() {
  // Unblocks the thread from accepting or sending.
  shutdown(listener_.fd.get(), SHUT_RDWR);
  shutdown(client_, SHUT_RDWR);
  thread_.join();
}

void EndlessServer::Run() {
  const base::ScopedFd client(accept4(listener_.fd.get(), nullptr, nullptr, SOCK_CLOEXEC));
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
