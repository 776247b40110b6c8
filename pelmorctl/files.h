// Files of which a failure must be explained.
#pragma once

#include <cstddef>
#include <string>

namespace pelmorctl {

enum class ReadOutcome { kRead, kAbsent, kForbidden, kFailed };

// Reads a file of the daemon's by the rules that the daemon has for it: a regular file of at most
// `base::kMaxFileBytes`. Never waits. On failure says why in `why`.
ReadOutcome ReadFile(const std::string& path, std::string* contents, std::string* why);

// Reads a file of the user's, which may be a pipe, to its end, or until it exceeds `limit`. On
// failure returns false and says why in `why`.
bool ReadInput(const std::string& path, size_t limit, std::string* contents, std::string* why);

// The same of the standard input.
bool ReadStandardInput(size_t limit, std::string* contents, std::string* why);

}  // namespace pelmorctl
