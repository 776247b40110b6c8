// Reads files, with a text for people that explains each failure.
#pragma once

#include <cstddef>
#include <string>

#include "base/result.h"

namespace pelmorctl {

enum class ReadError { kAbsent, kForbidden, kOther };

struct ReadFailure : base::Failure {
  ReadError error = ReadError::kOther;
};

using FileText = base::Result<std::string, ReadFailure>;

// Reads one of the daemon's files under the daemon's rules: a regular file of at most
// `base::kMaxFileBytes`. Never blocks.
FileText ReadFile(const std::string& path);

// Reads a file of the user, which may be a pipe, to its end, or until it exceeds `limit`.
FileText ReadInput(const std::string& path, size_t limit);

// The same for the standard input.
FileText ReadStandardInput(size_t limit);

}  // namespace pelmorctl
