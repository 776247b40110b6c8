#include "base/careful_open.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <utility>
#include <vector>

namespace base {

namespace {

// The kernel's limit for a path.
constexpr int kMaxLinks = 40;

// Resolves a path name by name, because it depends on a link's folder whether the link is followed.
// openat2(2) has no such rule, and older kernels lack it.
class Walk {
 public:
  Walk(const std::string& root, const std::string& path) : root_(root + "/") { Prepend(path); }

  ScopedFd Open(int flags);
  [[nodiscard]] bool is_below_open_folder() const { return is_below_open_folder_; }

 private:
  void Prepend(const std::string& path);
  void Enter(ScopedFd folder);
  // Continues with the target of the link. False if `name` is not a link that may be followed.
  bool Follow(const std::string& name);

  const std::string root_;
  ScopedFd folder_;
  // World-writable, this folder or one above it.
  bool is_below_open_folder_ = false;
  int links_ = 0;
  std::vector<std::string> names_;  // Not resolved yet, the next one last.
};

void Walk::Prepend(const std::string& path) {
  const bool is_absolute = path.starts_with('/');
  if (is_absolute || !folder_.is_valid())
    Enter(ScopedFd(open(is_absolute ? root_.c_str() : ".", O_PATH | O_DIRECTORY | O_CLOEXEC)));
  for (size_t end = path.size(); end > 0;) {
    const size_t slash = path.rfind('/', end - 1);
    const size_t start = slash == std::string::npos ? 0 : slash + 1;
    if (start < end) names_.push_back(path.substr(start, end - start));
    end = start > 0 ? start - 1 : 0;
  }
}

void Walk::Enter(ScopedFd folder) {
  folder_ = std::move(folder);
  struct stat status {};
  if (fstat(folder_.get(), &status) != 0 || (status.st_mode & S_IWOTH) != 0)
    is_below_open_folder_ = true;
}

bool Walk::Follow(const std::string& name) {
  std::string target(PATH_MAX, '\0');
  const ssize_t size = readlinkat(folder_.get(), name.c_str(), target.data(), target.size());
  if (size <= 0 || is_below_open_folder_ || ++links_ > kMaxLinks) return false;
  Prepend(target.substr(0, static_cast<size_t>(size)));
  return true;
}

ScopedFd Walk::Open(int flags) {
  while (folder_.is_valid()) {
    std::string name = ".";
    if (!names_.empty()) {
      name = std::move(names_.back());
      names_.pop_back();
    }
    const bool is_last = names_.empty();
    const int how = is_last ? flags : O_PATH | O_DIRECTORY;
    ScopedFd found(openat(folder_.get(), name.c_str(), how | O_NOFOLLOW | O_CLOEXEC));
    if (found.is_valid() && is_last) return found;
    if (found.is_valid())
      Enter(std::move(found));
    else if (!Follow(name))
      break;
  }
  return {};
}

}  // namespace

ScopedFd OpenCarefully(const std::string& root, const std::string& path, int flags) {
  return Walk(root, path).Open(flags);
}

ScopedFd OpenToRead(const std::string& root, const std::string& path) {
  Walk walk(root, path);
  // A blocking open of a pipe would wait for a writer.
  ScopedFd file = walk.Open(O_RDONLY | O_NONBLOCK | O_NOCTTY);
  struct stat status {};
  if (!file.is_valid() || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return {};
  const bool is_ours = status.st_uid == 0 || status.st_uid == geteuid();
  return is_ours || !walk.is_below_open_folder() ? std::move(file) : ScopedFd();
}

}  // namespace base
