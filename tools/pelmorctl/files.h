// Files of which a failure must be explained.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace pelmorctl {

enum class ReadOutcome { kRead, kAbsent, kForbidden, kFailed };

// Reads the file, which may be a pipe, to its end, or until it exceeds `limit`. On failure says why
// in `why`.
ReadOutcome ReadFile(const std::string& path, std::string* contents, std::string* why,
                     size_t limit = SIZE_MAX);

// The same of the standard input. On failure returns false.
bool ReadStandardInput(size_t limit, std::string* contents, std::string* why);

}  // namespace pelmorctl
