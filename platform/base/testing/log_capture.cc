#include "base/testing/log_capture.h"

namespace base {

LogCapture::LogCapture() {
  SetLogSink([this](LogSeverity severity, const std::string& message) {
    static constexpr const char* kNames[] = {"INFO", "WARNING", "ERROR", "FATAL"};
    lines_.push_back(std::string(kNames[static_cast<size_t>(severity)]) + " " + message);
  });
}

LogCapture::~LogCapture() { SetLogSink({}); }

}  // namespace base
