// The two places that log lines are written to. Neither blocks the process: a line that finds no
// room is lost, and the caller counts it.
//
// A deadline is for a line that is worth waiting for; one that has passed does not wait.
#pragma once

#include <string>
#include <utility>

#include "base/scoped_fd.h"
#include "base/time.h"

namespace base {

// Descriptor 2, whatever it is. A pipe that others write to as well can still block the process
// when it may not be opened anew (it belongs to another user) and they fill it at the wrong moment.
class StandardError {
 public:
  // Writes a line with its line break. False when it, or the end of it, is lost.
  [[nodiscard]] bool Write(const std::string& line, TimeTicks deadline);

 private:
  bool is_within_line_ = false;
};

// The system log's datagram socket, as syslog(3) uses it. Connects again when the log was
// restarted.
class SystemLog {
 public:
  SystemLog() = default;
  explicit SystemLog(std::string socket_path) : socket_path_(std::move(socket_path)) {}

  // Sends a record of RFC 3164. False when it is lost.
  [[nodiscard]] bool Write(const std::string& record, TimeTicks deadline);

 private:
  [[nodiscard]] bool Connect();

  std::string socket_path_;
  ScopedFd socket_;
};

}  // namespace base
