// What may be wrong with the value of a key of the configuration.
#pragma once

#include <string>
#include <vector>

#include "pelmorctl/config_check.h"

namespace pelmorctl {

struct ValueFault {
  Severity severity = Severity::kError;
  std::string message;  // Says nothing of the value itself.
};

std::vector<ValueFault> CheckValue(const std::string& key, const std::string& value);

}  // namespace pelmorctl
