#include "base/logging.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>
#include <utility>

#include "base/log_outputs.h"
#include "base/printable.h"

namespace base {

namespace {

struct SeverityName {
  const char* text;
  int syslog_priority;
};
constexpr std::array<SeverityName, 4> kSeverities = {
    {{"INFO", LOG_INFO}, {"WARNING", LOG_WARNING}, {"ERROR", LOG_ERR}, {"FATAL", LOG_CRIT}}};

LogSettings g_settings;
std::string g_program = "unknown";
LogSink g_sink;

// The number of bytes of the message to write, without a part of a UTF-8 character at the end.
size_t KeptBytes(std::string_view message) {
  constexpr size_t kMaxCharacterBytes = 4;
  if (message.size() <= kMaxLogMessageBytes) return message.size();
  const auto continues = [&](size_t at) { return (message[at] & 0xc0) == 0x80; };
  size_t kept = kMaxLogMessageBytes;
  while (continues(kept) && kept > kMaxLogMessageBytes - kMaxCharacterBytes) --kept;
  return kept;
}

// Escapes a message, so that a text that it quotes, such as a response body, cannot forge a log
// line.
std::string OneLine(std::string_view message) {
  const size_t kept = KeptBytes(message);
  std::string line = Printable(message.substr(0, kept));
  if (kept < message.size())
    line += " [" + std::to_string(message.size() - kept) + " bytes left out]";
  return line;
}

struct Line {
  std::string place;  // "file.cc:12] "
  LogSeverity severity;
  std::string message;
};

const SeverityName& NameOf(LogSeverity severity) {
  return kSeverities[static_cast<size_t>(severity)];
}

std::string PlaceOf(const char* file, int line_number) {
  const char* const slash = strrchr(file, '/');
  return std::string(slash ? slash + 1 : file) + ":" + std::to_string(line_number) + "] ";
}

std::string FormatForStderr(const Line& line) {
  std::ostringstream text;
  if (g_settings.with_header)
    text << Time::Now() << ' ' << NameOf(line.severity).text << ' ' << g_program << '[' << getpid()
         << "] " << line.place;
  text << line.message << '\n';
  return text.str();
}

// RFC 3164 with local time, as syslog(3) writes it.
std::string FormatForSyslog(const Line& line) {
  const SeverityName& name = NameOf(line.severity);
  const time_t now = Time::Now().ToTimeT();
  tm local{};
  localtime_r(&now, &local);
  char when[sizeof("Nov 14 22:13:20")];
  strftime(when, sizeof(when), "%b %e %T", &local);
  std::ostringstream text;
  text << '<' << (LOG_DAEMON | name.syslog_priority) << '>' << when << ' ' << g_program << '['
       << getpid() << "]: " << name.text << ' ' << line.place << line.message;
  return text.str();
}

// An output that never blocks, and the number of lines lost since its last line.
template <typename Output, std::string (*Format)(const Line&)>
class CountingOutput {
 public:
  CountingOutput() = default;
  explicit CountingOutput(Output output) : output_(std::move(output)) {}

  void Write(const Line& line, TimeTicks deadline) {
    if (lost_ > 0 && !output_.Write(Format(DescribeLoss()), deadline)) {
      ++lost_;
      return;
    }
    lost_ = output_.Write(Format(line), deadline) ? 0 : 1;
  }

 private:
  [[nodiscard]] Line DescribeLoss() const {
    return {PlaceOf(__FILE__, __LINE__), LogSeverity::WARNING,
            std::to_string(lost_) + " log lines were lost"};
  }

  Output output_;
  size_t lost_ = 0;
};

CountingOutput<StandardError, FormatForStderr> g_stderr;
CountingOutput<SystemLog, FormatForSyslog> g_syslog;

void WriteLine(const Line& line) {
  // Worth waiting for: only this line gives the reason of the abort.
  const bool waits = line.severity == LogSeverity::FATAL;
  const TimeTicks deadline = waits ? TimeTicks::Now() + kFatalLinePatience : TimeTicks();
  if (g_settings.to_syslog) g_syslog.Write(line, deadline);
  if (g_settings.to_stderr) g_stderr.Write(line, deadline);
}

}  // namespace

void InitLogging(const std::string& program, const LogSettings& settings) {
  g_program = program;
  g_settings = settings;
  // If the parent closed it, the next file or socket gets its number.
  if (fcntl(STDERR_FILENO, F_GETFD) == -1) g_settings.to_stderr = false;
  g_stderr = {};
  g_syslog = CountingOutput<SystemLog, FormatForSyslog>(SystemLog(settings.syslog_socket));
}

void SetLogSink(const LogSink& sink) { g_sink = sink; }

LogMessage::LogMessage(const char* file, int line, LogSeverity severity)
    : file_(file), line_(line), severity_(severity) {}

LogMessage::LogMessage(const char* file, int line, const char* failed_condition)
    : file_(file),
      line_(line),
      severity_(LogSeverity::FATAL),
      failed_condition_(failed_condition) {}

LogMessage::~LogMessage() {
  std::string message = stream_.str();
  if (failed_condition_) {
    const std::string detail = message.empty() ? "" : ": " + message;
    message = std::string("Check failed: ") + failed_condition_ + detail;
  }
  message = OneLine(message);
  const bool fatal = severity_ == LogSeverity::FATAL;
  if (g_sink.is_null() || fatal) WriteLine({PlaceOf(file_, line_), severity_, message});
  if (!g_sink.is_null()) g_sink.Run(severity_, message);
  if (fatal) std::abort();
}

}  // namespace base
