#include "base/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "base/scoped_fd.h"

namespace base {

std::string g_root_for_testing;

namespace {

constexpr size_t kReadChunkBytes = 4096;

std::string Rooted(const FilePath& path) { return g_root_for_testing + path.value(); }

bool ReadAll(int fd, std::string* contents) {
  // Not on the stack, where a secret that it has held would stay.
  std::string chunk(kReadChunkBytes, '\0');
  for (;;) {
    const ssize_t count = read(fd, chunk.data(), chunk.size());
    if (count == 0) return true;
    if (count > 0) contents->append(chunk, 0, static_cast<size_t>(count));
    if (count < 0 && errno != EINTR) return false;
  }
}

bool WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t count = write(fd, data, size);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    data += count;
    size -= static_cast<size_t>(count);
  }
  return true;
}

// A pipe's reader waits for its writer, which may never come.
bool IsPipe(int fd) {
  struct stat status {};
  return fstat(fd, &status) == 0 && S_ISFIFO(status.st_mode);
}

// Puts the data on disk under a name of its own, beside the file it will replace.
bool WriteTemporary(const std::string& temporary, const char* data, size_t size) {
  // One writer a file: what a crash left under this name is stale, and its mode is not to be
  // trusted.
  unlink(temporary.c_str());
  const ScopedFd fd(open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  return fd.is_valid() && WriteAll(fd.get(), data, size) && fsync(fd.get()) == 0;
}

std::string FolderOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

}  // namespace

bool PathExists(const FilePath& path) { return access(Rooted(path).c_str(), F_OK) == 0; }

bool ReadFileToString(const FilePath& path, std::string* contents) {
  const ScopedFd fd(open(Rooted(path).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  std::string read;
  if (!fd.is_valid() || IsPipe(fd.get()) || !ReadAll(fd.get(), &read)) return false;
  *contents = std::move(read);
  return true;
}

int WriteFile(const FilePath& path, const char* data, size_t size) {
  const std::string target = Rooted(path);
  const std::string temporary = target + ".new";
  // Opened first: what can fail, fails before the old file is replaced.
  const ScopedFd folder(open(FolderOf(target).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder.is_valid() || !WriteTemporary(temporary, data, size) ||
      rename(temporary.c_str(), target.c_str()) != 0) {
    unlink(temporary.c_str());
    return -1;
  }
  // The renaming itself must survive a power cut too.
  return fsync(folder.get()) == 0 ? static_cast<int>(size) : -1;
}

bool DeleteFile(const FilePath& path, bool recursive) {
  return !recursive && (unlink(Rooted(path).c_str()) == 0 || errno == ENOENT);
}

}  // namespace base
