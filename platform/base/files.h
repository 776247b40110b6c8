// Whole files: read, replaced and deleted in one call.
//
// Links that another user may have planted are not followed (`base/careful_open.h`).
//
// A test moves the root of every path with `base/testing/scoped_root.h`.
#pragma once

#include <cstddef>
#include <string>

#include "base/file_path.h"

namespace base {

// The largest file that is read. A token that fills a whole response fits.
inline constexpr size_t kMaxFileBytes = size_t{1024} * 1024;

bool PathExists(const FilePath& path);

// Reads the whole file into `contents`. On failure returns false and leaves `contents` alone. It
// fails also for what is no regular file or larger than `kMaxFileBytes`, and below a folder that
// others may write, such as /tmp, for what neither root nor this process's user owns.
[[nodiscard]] bool ReadFileToString(const FilePath& path, std::string* contents);

// Replaces the file with `size` bytes of `data`, mode 0600, atomically and durably: after a power
// cut it holds the old bytes or the new ones, whole. Returns the number of bytes written, or -1;
// the old file is then untouched, unless all that failed was to make its replacement durable.
[[nodiscard]] int WriteFile(const FilePath& path, const char* data, size_t size);

// Deletes one file. True also when there was none. `recursive` must be false: no caller deletes
// trees.
[[nodiscard]] bool DeleteFile(const FilePath& path, bool recursive);

// For `ScopedRoot` alone: put before every path that the functions above are given.
extern std::string g_root_for_testing;

}  // namespace base
