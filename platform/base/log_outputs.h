// The two outputs of the log. Neither blocks the process: if an output is full, the line is lost,
// and the caller counts it.
//
// A write waits for room until its deadline; with a deadline in the past it does not wait.
#pragma once

#include <string>
#include <utility>

#include "base/scoped_fd.h"
#include "base/time.h"

namespace base {

// Descriptor 2, of any type. Limitation: if it is a pipe of another user, which cannot be reopened,
// and another writer fills it between the check for room and the write, the write blocks.
class StandardError {
 public:
  // Writes a line with its line break. False if it or the end of it is lost.
  [[nodiscard]] bool Write(const std::string& line, TimeTicks deadline);

 private:
  bool is_within_line_ = false;
};

// The system log's datagram socket, as in syslog(3). Reconnects after a restart of the system log.
class SystemLog {
 public:
  SystemLog() = default;
  explicit SystemLog(std::string socket_path) : socket_path_(std::move(socket_path)) {}

  // Sends a record of RFC 3164. False if it is lost.
  [[nodiscard]] bool Write(const std::string& record, TimeTicks deadline);

 private:
  [[nodiscard]] bool Connect();

  std::string socket_path_;
  ScopedFd socket_;
};

}  // namespace base
