#include "base/logging.h"

#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/time.h"

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

// Escaped, so that what a message quotes (a response body, say) can't forge a line of the log.
void AppendEscaped(char character, std::string* line) {
  static constexpr char kHexDigits[] = "0123456789abcdef";
  const auto byte = static_cast<unsigned char>(character);
  if (byte >= 0x20 && byte != 0x7f) {
    line->push_back(character);
  } else if (character == '\n') {
    *line += "\\n";
  } else if (character == '\t') {
    *line += "\\t";
  } else if (character == '\r') {
    *line += "\\r";
  } else {
    *line += {'\\', 'x', kHexDigits[byte >> 4], kHexDigits[byte & 0xf]};
  }
}

std::string OneLine(std::string_view message) {
  std::string line;
  for (const char character : message.substr(0, kMaxLogMessageBytes))
    AppendEscaped(character, &line);
  if (message.size() > kMaxLogMessageBytes)
    line += " [" + std::to_string(message.size() - kMaxLogMessageBytes) + " bytes left out]";
  return line;
}

void WriteToStderr(const std::string& line) {
  // One write, so that lines of several processes don't mix. Nobody is left to tell of a failure.
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
}

void WriteLine(const char* file, int line_number, LogSeverity severity,
               const std::string& message) {
  const SeverityName& name = kSeverities[static_cast<size_t>(severity)];
  const char* const slash = strrchr(file, '/');
  const std::string place =
      std::string(slash ? slash + 1 : file) + ":" + std::to_string(line_number) + "] ";
  if (g_settings.to_syslog)
    syslog(name.syslog_priority, "%s %s%s", name.text, place.c_str(), message.c_str());
  if (!g_settings.to_stderr) return;
  std::ostringstream line;
  if (g_settings.with_header)
    line << Time::Now() << ' ' << name.text << ' ' << g_program << '[' << getpid() << "] " << place;
  line << message << '\n';
  WriteToStderr(line.str());
}

}  // namespace

void InitLogging(const std::string& program, const LogSettings& settings) {
  g_program = program;
  g_settings = settings;
  if (settings.to_syslog) openlog(g_program.c_str(), LOG_PID, LOG_DAEMON);
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
  if (g_sink.is_null() || fatal) WriteLine(file_, line_, severity_, message);
  if (!g_sink.is_null()) g_sink.Run(severity_, message);
  if (fatal) std::abort();
}

}  // namespace base
