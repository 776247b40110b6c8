// The command "status": the daemon's counters, gates and last responses.
#pragma once

#include <string>

#include "pelmorctl/daemon_status.h"

namespace pelmorctl {

std::string FormatStatusTable(const DaemonStatus& status);
// One line: an object that contains an object for each section.
std::string FormatStatusAsJson(const DaemonStatus& status);

// "2026-11-22 10:31:46 UTC"
std::string FormatTime(int64_t seconds_since_epoch);

}  // namespace pelmorctl
