// Opens files safely in folders where other users may have planted links or files.
//
// Below a world-writable folder, such as /tmp, symbolic links are not followed, and only files of
// root or of this process's user are read. Links elsewhere belong to the system and are followed.
#pragma once

#include <string>

#include "base/scoped_fd.h"

namespace base {

// Opens an existing file or folder with the flags of open(2). Invalid on failure. `root` replaces
// "/", also in the targets of links; if empty, the root is "/" itself.
ScopedFd OpenCarefully(const std::string& root, const std::string& path, int flags);

// The same for reading, without blocking. Invalid also if it is not a regular file.
ScopedFd OpenToRead(const std::string& root, const std::string& path);

}  // namespace base
