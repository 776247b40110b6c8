#include "base/log_outputs.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string_view>

namespace base {

namespace {

// True if a write would not block: there is room, or it would fail.
bool AwaitRoom(int fd, TimeTicks deadline) {
  const int64_t left = std::max<int64_t>((deadline - TimeTicks::Now()).InMilliseconds(), 0);
  pollfd room{fd, POLLOUT, 0};
  return poll(&room, 1, static_cast<int>(left)) > 0;
}

// Reopens a pipe or terminal: O_NONBLOCK on the inherited file description would affect the
// processes that share it. Invalid if it is something else or may not be reopened.
ScopedFd OpenNonBlocking() {
  struct stat status {};
  if (fstat(STDERR_FILENO, &status) != 0) return {};
  if (!S_ISFIFO(status.st_mode) && !S_ISCHR(status.st_mode)) return {};
  return ScopedFd(open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

// Does not block after `AwaitRoom` returned true: a pipe with room accepts this many bytes.
ssize_t WriteSome(int fd, std::string_view text) {
  const ssize_t sent = send(fd, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  if (sent >= 0 || errno != ENOTSOCK) return sent;
  return write(fd, text.data(), std::min<size_t>(text.size(), PIPE_BUF));
}

}  // namespace

bool StandardError::Write(const std::string& line, TimeTicks deadline) {
  const ScopedFd own = OpenNonBlocking();
  const int fd = own.is_valid() ? own.get() : STDERR_FILENO;
  const std::string text = is_within_line_ ? "\n" + line : line;
  std::string_view rest = text;
  while (!rest.empty() && AwaitRoom(fd, deadline)) {
    const ssize_t count = WriteSome(fd, rest);
    if (count < 0 && errno == EINTR) continue;
    // A terminal may have room, but too little for the next character.
    if (count < 0 && (errno != EAGAIN || TimeTicks::Now() >= deadline)) break;
    if (count > 0) rest.remove_prefix(static_cast<size_t>(count));
  }
  const size_t written = text.size() - rest.size();
  if (written > 0) is_within_line_ = text[written - 1] != '\n';
  return rest.empty();
}

bool SystemLog::Write(const std::string& record, TimeTicks deadline) {
  constexpr int kAttempts = 2;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (!socket_.is_valid() && !Connect()) return false;
    if (!AwaitRoom(socket_.get(), deadline)) return false;
    if (send(socket_.get(), record.data(), record.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0)
      return true;
    if (errno == EAGAIN) return false;
    // The system log was restarted, with a new socket.
    socket_ = ScopedFd();
  }
  return false;
}

bool SystemLog::Connect() {
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  if (socket_path_.size() >= sizeof(address.sun_path)) return false;
  memcpy(address.sun_path, socket_path_.data(), socket_path_.size());
  ScopedFd connected(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (connect(connected.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
    return false;
  socket_ = std::move(connected);
  return true;
}

}  // namespace base
