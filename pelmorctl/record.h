// Sends records to the daemon, over the system bus.
#pragma once

#include <string>

#include "base/result.h"
#include "pelmorctl/arguments.h"
#include "pelmorctl/exit_codes.h"

namespace pelmorctl {

// The largest data that pelmorctl sends. By default the system bus allows messages of 32 MiB.
inline constexpr size_t kMaxDataBytes = size_t{16} * 1024 * 1024;

struct RecordFailure : base::Failure {
  ExitCode exit_code = kFailed;
};
using Recorded = base::Result<std::monostate, RecordFailure>;

Recorded Record(const RecordMetric& task);
Recorded Record(const RecordData& task);

}  // namespace pelmorctl
