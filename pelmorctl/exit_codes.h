// The exit statuses of the program, as its manual page lists them.
#pragma once

#include <sysexits.h>

namespace pelmorctl {

enum ExitCode : int {
  kDone = EX_OK,
  kFailed = 1,
  kUsage = EX_USAGE,
  kUnavailable = EX_UNAVAILABLE,
};

}  // namespace pelmorctl
