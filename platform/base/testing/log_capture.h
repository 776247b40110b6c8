// Collects the log lines of a test, as "SEVERITY message", instead of printing them. FATAL lines
// are printed too, for death tests. One at a time.
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

  [[nodiscard]] const std::vector<std::string>& lines() const { return lines_; }
  void Clear() { lines_.clear(); }

 private:
  std::vector<std::string> lines_;
};

}  // namespace base
