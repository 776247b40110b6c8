// Files of which a failure must be explained.
#pragma once

#include <cstddef>
#include <string>

namespace pelmorctl {

enum class ReadOutcome { kRead, kAbsent, kForbidden, kFailed };

// Reads the whole file. When that fails, says why in `why`.
ReadOutcome ReadFile(const std::string& path, std::string* contents, std::string* why);

// Reads the standard input to its end, or until it exceeds `limit`. On failure returns false and
// says why in `why`.
bool ReadStandardInput(size_t limit, std::string* contents, std::string* why);

}  // namespace pelmorctl
