// Records points from lines of text, one-way.
#pragma once

#include <functional>
#include <string>

#include "pelmorctl/exit_codes.h"

namespace pelmorctl {

// The longest line. A longer one is skipped.
inline constexpr size_t kMaxLineBytes = size_t{16} * 1024 * 1024;

// Reads records as `ParseMetricLine` takes them from the descriptor, to its end. A line that is no
// record is passed to `complain`, with its number, and skipped; the result is then `kFailed`.
// Returns early if a record is lost on its way to the daemon.
ExitCode RecordStream(int input, const std::function<void(const std::string&)>& complain);

}  // namespace pelmorctl
