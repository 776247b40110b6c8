#include "base/files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "base/careful_open.h"

namespace base {

std::string g_root_for_testing;

namespace {

constexpr size_t kReadChunkBytes = 4096;

std::string Rooted(const FilePath& path) { return g_root_for_testing + path.value(); }

bool ReadAll(int fd, std::string* contents) {
  // Not on the stack, where nothing overwrites a secret.
  std::string chunk(kReadChunkBytes, '\0');
  while (contents->size() <= kMaxFileBytes) {
    const ssize_t count = read(fd, chunk.data(), chunk.size());
    if (count == 0) return true;
    if (count > 0) contents->append(chunk, 0, static_cast<size_t>(count));
    if (count < 0 && errno != EINTR) return false;
  }
  return false;
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

// Writes and syncs the data to a temporary file next to the one that it will replace.
bool WriteTemporary(int folder, const std::string& name, const char* data, size_t size) {
  // Each file has one writer, so an existing temporary file is left from a crash.
  unlinkat(folder, name.c_str(), 0);
  const ScopedFd fd(openat(folder, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  return fd.is_valid() && WriteAll(fd.get(), data, size) && fsync(fd.get()) == 0;
}

// The position of the file's name in its path.
size_t NameStart(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? 0 : slash + 1;
}

}  // namespace

bool PathExists(const FilePath& path) { return access(Rooted(path).c_str(), F_OK) == 0; }

bool ReadFileToString(const FilePath& path, std::string* contents) {
  const ScopedFd fd = OpenToRead(g_root_for_testing, path.value());
  std::string read;
  if (!fd.is_valid() || !ReadAll(fd.get(), &read)) return false;
  *contents = std::move(read);
  return true;
}

int WriteFile(const FilePath& path, const char* data, size_t size) {
  const std::string& target = path.value();
  const std::string name = target.substr(NameStart(target));
  const std::string temporary = name + ".new";
  // Opened first, so that a failure leaves the old file.
  const ScopedFd folder = OpenCarefully(g_root_for_testing, target.substr(0, NameStart(target)),
                                        O_RDONLY | O_DIRECTORY);
  if (!folder.is_valid()) return -1;
  if (!WriteTemporary(folder.get(), temporary, data, size) ||
      renameat(folder.get(), temporary.c_str(), folder.get(), name.c_str()) != 0) {
    unlinkat(folder.get(), temporary.c_str(), 0);
    return -1;
  }
  // The rename must survive a power failure too.
  return fsync(folder.get()) == 0 ? static_cast<int>(size) : -1;
}

bool DeleteFile(const FilePath& path, bool recursive) {
  return !recursive && (unlink(Rooted(path).c_str()) == 0 || errno == ENOENT);
}

}  // namespace base
