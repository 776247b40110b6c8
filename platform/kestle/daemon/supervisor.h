// The status that a daemon reports to its supervisor.
#pragma once

#include <string>

namespace kestle {

// Sets the status that the supervisor shows for the process: one line of UTF-8 text. Does nothing
// without a supervisor.
void PublishStatus(const std::string& status);

}  // namespace kestle
