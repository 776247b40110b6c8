// An owned file descriptor, closed by the destructor.
#pragma once

#include <unistd.h>

#include <utility>

namespace base {

class [[nodiscard]] ScopedFd {
 public:
  ScopedFd() = default;
  explicit ScopedFd(int fd) : fd_(fd) {}
  ScopedFd(ScopedFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  ScopedFd& operator=(ScopedFd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~ScopedFd() {
    if (fd_ >= 0) close(fd_);
  }

  [[nodiscard]] bool is_valid() const { return fd_ >= 0; }
  [[nodiscard]] int get() const { return fd_; }

 private:
  int fd_ = -1;
};

}  // namespace base
