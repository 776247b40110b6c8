#include "tools/pelmorctl/files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/files.h"
#include "base/scoped_fd.h"

namespace pelmorctl {

namespace {

ReadOutcome Explain(int error, std::string* why) {
  if (error == ENOENT) {
    *why = "there is no such file";
    return ReadOutcome::kAbsent;
  }
  if (error == EACCES || error == EPERM) {
    *why = "this user has no right to read it: run this as root";
    return ReadOutcome::kForbidden;
  }
  *why = std::string("it can't be read: ") + strerror(error);
  return ReadOutcome::kFailed;
}

// Why the file can't be read, by trying again.
int ReadError(const std::string& path) {
  const base::ScopedFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  char byte = 0;
  if (!fd.is_valid() || read(fd.get(), &byte, 1) < 0) return errno;
  return EIO;
}

}  // namespace

ReadOutcome ReadFile(const std::string& path, std::string* contents, std::string* why) {
  if (base::ReadFileToString(path, contents)) return ReadOutcome::kRead;
  return Explain(ReadError(path), why);
}

bool ReadStandardInput(size_t limit, std::string* contents, std::string* why) {
  char chunk[4096];
  while (contents->size() <= limit) {
    const ssize_t count = read(STDIN_FILENO, chunk, sizeof(chunk));
    if (count == 0) return true;
    if (count > 0) contents->append(chunk, static_cast<size_t>(count));
    if (count < 0 && errno != EINTR) {
      Explain(errno, why);
      return false;
    }
  }
  return true;
}

}  // namespace pelmorctl
