// The stream logger and the fatal checks.
//
//   LOG(WARNING) << "Failed to load configuration overrides " << path;
//   CHECK(fd >= 0) << "No descriptor left";
//
// A line goes where `InitLogging` says (standard error until then). What is not printable in a
// message is escaped (`base/printable.h`), so that it stays one line; past `kMaxLogMessageBytes` it
// is cut. FATAL lines, and so failed checks, abort the process.
//
// Logging never blocks: a line that a stalled reader leaves no room for is lost, and the number of
// lost lines is logged before the next line that is written. Only FATAL lines wait for room, for
// `kFatalLinePatience` at most.
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

// `program` names the process in the header and in the system log. A standard error that is closed
// gets nothing, whatever takes its number.
void InitLogging(const std::string& program, const LogSettings& settings);

// For tests: while not null, lines go here in place of their usual places.
using LogSink = Callback<void(LogSeverity, const std::string& message)>;
void SetLogSink(const LogSink& sink);

// One line in the making; written when it goes out of scope.
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

// Gives both arms of a check the type void.
struct LogVoidify {
  void operator&(std::ostream&) const {}
};

}  // namespace base

#define LOG(severity) ::base::LogMessage(__FILE__, __LINE__, ::base::LogSeverity::severity).stream()

// A statement, with the message streamed behind it.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define CHECK(condition)             \
  (condition) ? static_cast<void>(0) \
              : ::base::LogVoidify() & ::base::LogMessage(__FILE__, __LINE__, #condition).stream()
// NOLINTEND(bugprone-macro-parentheses)
