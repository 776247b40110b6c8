// Reads, replaces and deletes whole files, each in one call.
//
// Links that another user may have planted are not followed (`base/careful_open.h`). Every path is
// prefixed with `g_root_for_testing`, which is empty in production; `base/testing/scoped_root.h`
// sets it.
#pragma once

#include <cstddef>
#include <string>

#include "base/file_path.h"

namespace base {

// The largest file that is read. A token that fills a whole response fits.
inline constexpr size_t kMaxFileBytes = size_t{1024} * 1024;

bool PathExists(const FilePath& path);

// Reads the whole file into `contents`. On failure returns false and leaves `contents` unchanged.
// Fails also if the file is not regular or larger than `kMaxFileBytes`, or, below a world-writable
// folder such as /tmp, if neither root nor this process's user owns it.
[[nodiscard]] bool ReadFileToString(const FilePath& path, std::string* contents);

// Replaces the file with `size` bytes of `data`, mode 0600, atomically and durably: after a power
// failure it has either all old bytes or all new ones. Returns the number of bytes written, or -1;
// the old file is then unchanged, unless only the final sync of the folder failed.
[[nodiscard]] int WriteFile(const FilePath& path, const char* data, size_t size);

// Deletes a file. True also if it does not exist. `recursive` must be false; no caller needs it.
[[nodiscard]] bool DeleteFile(const FilePath& path, bool recursive);

// For `ScopedRoot` only.
extern std::string g_root_for_testing;

}  // namespace base
