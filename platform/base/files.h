// Whole files: read, replaced and deleted in one call.
//
// A test moves the root of every path with `base/testing/scoped_root.h`.
#pragma once

#include <cstddef>
#include <string>

#include "base/file_path.h"

namespace base {

bool PathExists(const FilePath& path);

// Reads the whole file into `contents`. On failure returns false and leaves `contents` alone.
bool ReadFileToString(const FilePath& path, std::string* contents);

// Replaces the file with `size` bytes of `data`, mode 0600, atomically and durably: after a power
// cut it holds the old bytes or the new ones, whole. Returns the number of bytes written, or -1;
// the old file is then untouched, unless all that failed was to make its replacement durable.
int WriteFile(const FilePath& path, const char* data, size_t size);

// Deletes one file. True also when there was none. `recursive` must be false: no caller deletes
// trees.
bool DeleteFile(const FilePath& path, bool recursive);

// For `ScopedRoot` alone: put before every path that the functions above are given.
extern std::string g_root_for_testing;

}  // namespace base
