// The output of `--help` and `--version`.
#pragma once

#include <string>

namespace pelmorctl {

std::string ProgramUsage();
// Precondition: the command exists.
std::string CommandUsage(const std::string& command);
std::string VersionText();
// "0.1.0"
std::string Version();

}  // namespace pelmorctl
