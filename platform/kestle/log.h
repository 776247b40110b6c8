// Selects where the process writes its log.
#pragma once

namespace kestle {

enum LogFlags : int {
  kLogToSyslog = 1,
  kLogToStderr = 2,
  // Time, severity, process, file and line before each message on standard error.
  kLogHeader = 4,
};

// `flags` is a sum of `LogFlags`.
void InitLog(int flags);

}  // namespace kestle
