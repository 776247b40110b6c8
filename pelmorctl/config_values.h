// Checks the value of a configuration key.
#pragma once

#include <string>
#include <vector>

namespace pelmorctl {

// An error stops the daemon. With a warning it starts, but probably not as intended.
enum class Severity { kWarning, kError };

struct ValueFault {
  Severity severity = Severity::kError;
  std::string message;  // Does not quote the value.
};

std::vector<ValueFault> CheckValue(const std::string& key, const std::string& value);

}  // namespace pelmorctl
