#include "kestle/http/testing/scripted_server.h"

#include <linux/sockios.h>
#include <poll.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cstdlib>
#include <cstring>
#include <sstream>
#include <utility>

#include "base/logging.h"

namespace kestle::http {

namespace {

constexpr char kBlankLine[] = "\r\n\r\n";
constexpr size_t kReadChunkBytes = size_t{64} * 1024;
// A client that does not read must not block the end of the test.
constexpr timeval kSendTimeout = {5, 0};

std::string HeaderValue(const std::string& head, const char* name) {
  std::istringstream lines(head);
  for (std::string line; std::getline(lines, line);) {
    const size_t colon = line.find(':');
    if (colon != std::string::npos && strcasecmp(line.substr(0, colon).c_str(), name) == 0)
      return line.substr(colon + 1);
  }
  return "";
}

void WaitUntilArrived(int fd) {
  for (int unacknowledged = 1; unacknowledged != 0;)
    CHECK(ioctl(fd, SIOCOUTQ, &unacknowledged) == 0);
}

}  // namespace

std::string HttpReply(int status, const std::string& body) {
  return "HTTP/1.1 " + std::to_string(status) +
         " Scripted\r\nContent-Length: " + std::to_string(body.size()) + kBlankLine + body;
}

bool ScriptedServer::Received::HasLine(const std::string& line) const {
  return ("\r\n" + head).find("\r\n" + line + "\r\n") != std::string::npos;
}

int ScriptedServer::Received::CountHeaders(const std::string& name) const {
  int count = 0;
  std::istringstream lines(head);
  for (std::string line; std::getline(lines, line);) {
    if (strncasecmp(line.c_str(), (name + ":").c_str(), name.size() + 1) == 0) ++count;
  }
  return count;
}

ScriptedServer::ScriptedServer() : wake_(eventfd(0, EFD_CLOEXEC)) {
  CHECK(listen(listener_.fd.get(), SOMAXCONN) == 0);
  thread_ = std::thread([this] { Run(); });
}

ScriptedServer::~ScriptedServer() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  eventfd_write(wake_.get(), 1);
  thread_.join();
}

std::string ScriptedServer::Url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port()) + path;
}

void ScriptedServer::Reply(std::string bytes, After after) {
  {
    const std::lock_guard lock(mutex_);
    replies_.push_back({std::move(bytes), after});
  }
  eventfd_write(wake_.get(), 1);
}

void ScriptedServer::SendUnasked(int connection, std::string bytes, After after) {
  std::unique_lock lock(mutex_);
  unasked_[connection] = {std::move(bytes), after};
  eventfd_write(wake_.get(), 1);
  unasked_sent_.wait(lock, [this] { return unasked_.empty(); });
}

std::vector<ScriptedServer::Received> ScriptedServer::requests() const {
  const std::lock_guard lock(mutex_);
  return requests_;
}

size_t ScriptedServer::hang_ups() const {
  const std::lock_guard lock(mutex_);
  return hang_ups_;
}

void ScriptedServer::Run() {
  for (;;) {
    std::vector<pollfd> polled = {{wake_.get(), POLLIN, 0}, {listener_.fd.get(), POLLIN, 0}};
    std::vector<int> numbers;
    for (const auto& [number, connection] : connections_) {
      polled.push_back({connection.fd.get(), POLLIN, 0});
      numbers.push_back(number);
    }
    poll(polled.data(), polled.size(), -1);
    eventfd_t ignored = 0;
    if (polled[0].revents) eventfd_read(wake_.get(), &ignored);
    if (polled[1].revents) Accept();
    for (size_t i = 0; i < numbers.size(); ++i) {
      if (polled[i + 2].revents) Read(numbers[i]);
    }
    const std::lock_guard lock(mutex_);
    if (stopping_) return;
    ServeWaiting();
    ServeUnasked();
  }
}

void ScriptedServer::Accept() {
  base::ScopedFd fd(accept4(listener_.fd.get(), nullptr, nullptr, SOCK_CLOEXEC));
  if (!fd.is_valid()) return;
  setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &kSendTimeout, sizeof(kSendTimeout));
  connections_[++last_connection_].fd = std::move(fd);
}

void ScriptedServer::Read(int number) {
  Connection& connection = connections_.at(number);
  std::vector<char> chunk(kReadChunkBytes);
  const ssize_t count = recv(connection.fd.get(), chunk.data(), chunk.size(), 0);
  const std::lock_guard lock(mutex_);
  if (count <= 0) {
    ++hang_ups_;
    connections_.erase(number);
    return;
  }
  connection.unread.append(chunk.data(), static_cast<size_t>(count));
  while (TakeRequest(number, &connection.unread)) {
  }
}

bool ScriptedServer::TakeRequest(int number, std::string* unread) {
  const size_t blank_line = unread->find(kBlankLine);
  if (blank_line == std::string::npos) return false;
  const size_t head_size = blank_line + strlen(kBlankLine);
  const std::string head = unread->substr(0, head_size);
  const size_t body_size = strtoul(HeaderValue(head, "Content-Length").c_str(), nullptr, 10);
  if (unread->size() < head_size + body_size) return false;
  requests_.push_back({number, head, unread->substr(head_size, body_size)});
  unread->erase(0, head_size + body_size);
  waiting_.push_back(number);
  return true;
}

void ScriptedServer::ServeWaiting() {
  while (!replies_.empty() && !waiting_.empty()) {
    const int number = waiting_.front();
    waiting_.pop_front();
    const auto connection = connections_.find(number);
    // The client has disconnected: the reply is for the next request.
    if (connection == connections_.end()) continue;
    const Scripted reply = std::move(replies_.front());
    replies_.pop_front();
    // The client may have disconnected on purpose.
    static_cast<void>(SendAll(connection->second.fd.get(), reply.bytes));
    if (reply.after == After::kClose) connections_.erase(connection);
  }
}

void ScriptedServer::ServeUnasked() {
  for (const auto& [number, unasked] : unasked_) {
    const auto connection = connections_.find(number);
    CHECK(connection != connections_.end()) << "The client has disconnected";
    // The client may disconnect at the first of the bytes.
    static_cast<void>(SendAll(connection->second.fd.get(), unasked.bytes));
    WaitUntilArrived(connection->second.fd.get());
    if (unasked.after == After::kClose) connections_.erase(connection);
  }
  unasked_.clear();
  unasked_sent_.notify_all();
}

}  // namespace kestle::http
