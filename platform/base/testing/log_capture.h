// Collects the log lines of a test in place of printing them, as "SEVERITY message". One at a time.
// FATAL lines are printed all the same, for death tests.
#pragma once

#include <string>
#include <vector>

#include "base/logging.h"

namespace base {

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  const std::vector<std::string>& lines() const { return lines_; }
  void Clear() { lines_.clear(); }

 private:
  std::vector<std::string> lines_;
};

}  // namespace base
