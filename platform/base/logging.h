// The stream logger and the fatal checks.
//
//   LOG(WARNING) << "Failed to load configuration overrides " << path;
//   CHECK(fd >= 0) << "No descriptor left";
//
// Lines are written to standard error, or to the outputs that `InitLogging` sets. A message is one
// line: unprintable characters are escaped (`base/printable.h`), and it is cut after
// `kMaxLogMessageBytes`. A FATAL line, and so a failed check, aborts the process.
//
// Logging does not block. If a reader stalls and an output is full, lines are lost, and their
// number is logged before the next line. Only FATAL lines wait for room, for at most
// `kFatalLinePatience`.
#pragma once

#include <cstddef>
#include <sstream>
#include <string>

#include "base/callback.h"
#include "base/time.h"

namespace base {

enum class LogSeverity { INFO, WARNING, ERROR, FATAL };

inline constexpr size_t kMaxLogMessageBytes = 8192;
inline constexpr TimeDelta kFatalLinePatience = TimeDelta::FromSeconds(1);

struct LogSettings {
  bool to_syslog = false;
  const char* syslog_socket = "/dev/log";
  bool to_stderr = true;
  // Time, severity, process, file and line before each message on standard error.
  bool with_header = true;
};

// `program` is the name of the process in the header and in the system log. If standard error is
// closed, nothing is written to a file that is opened later under its number.
void InitLogging(const std::string& program, const LogSettings& settings);

// For tests: if not null, replaces the outputs, except that FATAL lines are written as well.
using LogSink = Callback<void(LogSeverity, const std::string& message)>;
void SetLogSink(const LogSink& sink);

// A line, written by the destructor.
class LogMessage {
 public:
  LogMessage(const char* file, int line, LogSeverity severity);
  // The line of a failed check: "Check failed: <condition>", then ": " and the message, if any.
  LogMessage(const char* file, int line, const char* failed_condition);
  ~LogMessage();
  LogMessage(const LogMessage&) = delete;
  LogMessage& operator=(const LogMessage&) = delete;

  std::ostream& stream() { return stream_; }

 private:
  const char* const file_;
  const int line_;
  const LogSeverity severity_;
  const char* const failed_condition_ = nullptr;
  std::ostringstream stream_;
};

// Makes both branches of a check void.
struct LogVoidify {
  void operator&(std::ostream&) const {}
};

}  // namespace base

#define LOG(severity) ::base::LogMessage(__FILE__, __LINE__, ::base::LogSeverity::severity).stream()

// A statement; a message can be streamed to it.
// NOLINTBEGIN(bugprone-macro-parentheses): the message is streamed to the end of the expansion.
#define CHECK(condition)             \
  (condition) ? static_cast<void>(0) \
              : ::base::LogVoidify() & ::base::LogMessage(__FILE__, __LINE__, #condition).stream()
// NOLINTEND(bugprone-macro-parentheses)
