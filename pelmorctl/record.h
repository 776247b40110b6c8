// Hands records to the daemon, over the system bus.
//
// On failure each returns the exit code and says in `complaint` what is wrong and what to do.
#pragma once

#include <string>

#include "pelmorctl/arguments.h"
#include "pelmorctl/exit_codes.h"

namespace pelmorctl {

// More than this does not fit into one message of the system bus, with its default limits.
inline constexpr size_t kMaxDataBytes = size_t{16} * 1024 * 1024;

ExitCode Record(const RecordMetric& task, std::string* complaint);
ExitCode Record(const RecordData& task, std::string* complaint);

}  // namespace pelmorctl
