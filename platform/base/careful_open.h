// Opens files where other users may have planted something.
//
// Below a folder that everyone may write, such as /tmp, no symbolic link is followed, and only what
// root or this process's user owns is read. Links elsewhere are the system's and are followed.
#pragma once

#include <string>

#include "base/scoped_fd.h"

namespace base {

// Opens an existing file or folder with the flags of open(2). Invalid on failure. The folder `root`
// stands in for "/", also in the targets of links; it is "/" itself when empty.
ScopedFd OpenCarefully(const std::string& root, const std::string& path, int flags);

// The same for reading a regular file, without waiting for anything. Invalid also for what is none.
ScopedFd OpenToRead(const std::string& root, const std::string& path);

}  // namespace base
