// The versions and token endpoints of this program, and of the daemon, installed and running.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "base/result.h"

namespace pelmorctl {

// "0.1.0, token endpoint https://…", as the file of a daemon states it.
base::Result<std::string> ReadIdentity(const std::string& path);

// Several lines. `installed` is a file; `running` is a process.
std::string DescribeVersions(const std::string& installed, std::optional<pid_t> running);

}  // namespace pelmorctl
