#include "base/logging.h"

#include <fcntl.h>
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

void AppendHex(char character, std::string* line) {
  static constexpr char kHexDigits[] = "0123456789abcdef";
  const auto byte = static_cast<unsigned char>(character);
  *line += {'\\', 'x', kHexDigits[byte >> 4], kHexDigits[byte & 0xf]};
}

// Escaped, so that what a message quotes (a response body, say) can't forge a line of the log.
void AppendEscaped(char character, std::string* line) {
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
    AppendHex(character, line);
  }
}

// U+0080 to U+009F, to which a terminal listens as it does to the escape character.
bool StartsWithC1Control(std::string_view text) {
  return text.size() >= 2 && text[0] == '\xc2' && (text[1] & 0xe0) == 0x80;
}

// The bytes of the message that are written: a character of UTF-8 is not cut in two.
size_t KeptBytes(std::string_view message) {
  constexpr size_t kMaxCharacterBytes = 4;
  if (message.size() <= kMaxLogMessageBytes) return message.size();
  const auto continues = [&](size_t at) { return (message[at] & 0xc0) == 0x80; };
  size_t kept = kMaxLogMessageBytes;
  while (continues(kept) && kept > kMaxLogMessageBytes - kMaxCharacterBytes) --kept;
  return kept;
}

std::string OneLine(std::string_view message) {
  std::string line;
  const std::string_view kept = message.substr(0, KeptBytes(message));
  size_t done = 0;
  while (done < kept.size()) {
    if (StartsWithC1Control(kept.substr(done))) {
      AppendHex(kept[done++], &line);
      AppendHex(kept[done++], &line);
    } else {
      AppendEscaped(kept[done++], &line);
    }
  }
  if (kept.size() < message.size())
    line += " [" + std::to_string(message.size() - kept.size()) + " bytes left out]";
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
  // Where the parent has closed it, its number will be that of the next file or socket.
  if (fcntl(STDERR_FILENO, F_GETFD) == -1) g_settings.to_stderr = false;
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
