// The records that other processes report, as they are kept in memory until their upload.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "base/time.h"
#include "kestle/any.h"

namespace varelnos::ap {

// One measurement.
struct MetricPoint {
  std::string name;
  std::map<std::string, std::string> labels;
  kestle::Any value;
  base::Time timestamp;  // The time of recording.
};

enum class LogKind : int32_t { kStructured = 0, kOffline = 1 };

struct LogRecord {
  LogKind kind;
  std::string type_url;  // Identifies the log's type.
  std::string value;     // The reporter's bytes in web-safe Base64.
  base::Time timestamp;  // The time of recording.
};

}  // namespace varelnos::ap
