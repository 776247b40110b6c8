// What other processes hand to the daemon, as it waits in memory for its upload.
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
  base::Time timestamp;  // When it was recorded.
};

enum class LogKind : int32_t { kStructured = 0, kOffline = 1 };

struct LogRecord {
  LogKind kind;
  std::string type_url;  // Names the log's type.
  std::string value;     // The caller's bytes in web-safe Base64.
  base::Time timestamp;  // When it was recorded.
};

}  // namespace varelnos::ap
