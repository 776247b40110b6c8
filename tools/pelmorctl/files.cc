#include "tools/pelmorctl/files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

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

ReadOutcome ReadFile(const std::string& path, std::string* contents, std::string* why,
                     size_t limit) {
  const base::ScopedFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.is_valid() && ReadPart(fd.get(), limit, contents)) return ReadOutcome::kRead;
  return Explain(errno, why);
}

bool ReadStandardInput(size_t limit, std::string* contents, std::string* why) {
  if (ReadPart(STDIN_FILENO, limit, contents)) return true;
  Explain(errno, why);
  return false;
}

}  // namespace pelmorctl
