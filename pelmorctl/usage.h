// What `--help` and `--version` print.
#pragma once

#include <string>

namespace pelmorctl {

std::string ProgramUsage();
// Precondition: there is such a command.
std::string CommandUsage(const std::string& command);
std::string VersionText();
// "0.1.0"
std::string Version();

}  // namespace pelmorctl
