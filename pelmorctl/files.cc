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

ReadFailure Explain(int error) {
  if (error == ENOENT) return {{"there is no such file"}, ReadError::kAbsent};
  if (error == EACCES || error == EPERM)
    return {{"this user has no right to read it: run this as root"}, ReadError::kForbidden};
  return {{std::string("it can't be read: ") + strerror(error)}};
}

// Reads to the end, or until there is more than `limit`.
FileText ReadPart(int fd, size_t limit) {
  std::string text;
  char chunk[4096];
  while (text.size() <= limit) {
    const ssize_t count = read(fd, chunk, sizeof(chunk));
    if (count == 0) break;
    if (count > 0) text.append(chunk, static_cast<size_t>(count));
    if (count < 0 && errno != EINTR) return Explain(errno);
  }
  return text;
}

}  // namespace

FileText ReadFile(const std::string& path) {
  // Without O_NONBLOCK, opening a pipe would wait for a writer.
  const base::ScopedFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status {};
  if (!fd.is_valid() || fstat(fd.get(), &status) != 0) return Explain(errno);
  if (!S_ISREG(status.st_mode)) return ReadFailure{{"it is not a regular file"}};
  FileText text = ReadPart(fd.get(), base::kMaxFileBytes);
  if (text && text->size() > base::kMaxFileBytes)
    return ReadFailure{{"it is larger than " + std::to_string(base::kMaxFileBytes) + " bytes"}};
  return text;
}

FileText ReadInput(const std::string& path, size_t limit) {
  const base::ScopedFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  return fd.is_valid() ? ReadPart(fd.get(), limit) : Explain(errno);
}

FileText ReadStandardInput(size_t limit) { return ReadPart(STDIN_FILENO, limit); }

}  // namespace pelmorctl
