#include "pelmorctl/files.h"

#include <fcntl.h>
#include <sys/stat.h>
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

// Reads to the end, or until there is more than `limit`.
bool ReadPart(int fd, size_t limit, std::string* contents) {
  char chunk[4096];
  while (contents->size() <= limit) {
    const ssize_t count = read(fd, chunk, sizeof(chunk));
    if (count == 0) return true;
    if (count > 0) contents->append(chunk, static_cast<size_t>(count));
    if (count < 0 && errno != EINTR) return false;
  }
  return true;
}

}  // namespace

ReadOutcome ReadFile(const std::string& path, std::string* contents, std::string* why) {
  // A pipe's reader would wait for its writer, which may never come.
  const base::ScopedFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status {};
  if (!fd.is_valid() || fstat(fd.get(), &status) != 0) return Explain(errno, why);
  if (!S_ISREG(status.st_mode)) {
    *why = "it is not a regular file";
    return ReadOutcome::kFailed;
  }
  if (!ReadPart(fd.get(), base::kMaxFileBytes, contents)) return Explain(errno, why);
  if (contents->size() <= base::kMaxFileBytes) return ReadOutcome::kRead;
  *why = "it is larger than " + std::to_string(base::kMaxFileBytes) + " bytes";
  return ReadOutcome::kFailed;
}

bool ReadInput(const std::string& path, size_t limit, std::string* contents, std::string* why) {
  const base::ScopedFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.is_valid() && ReadPart(fd.get(), limit, contents)) return true;
  Explain(errno, why);
  return false;
}

bool ReadStandardInput(size_t limit, std::string* contents, std::string* why) {
  if (ReadPart(STDIN_FILENO, limit, contents)) return true;
  Explain(errno, why);
  return false;
}

}  // namespace pelmorctl
