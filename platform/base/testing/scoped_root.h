// An empty folder of a test's own that stands in for "/" in every path given to `base/files.h`.
// Removed with everything in it at the end. One at a time.
#pragma once

#include <string>

namespace base {

class ScopedRoot {
 public:
  ScopedRoot();
  ~ScopedRoot();
  ScopedRoot(const ScopedRoot&) = delete;
  ScopedRoot& operator=(const ScopedRoot&) = delete;

  // The place on the real disk of a path as the code under test names it.
  std::string Real(const std::string& path) const { return root_ + path; }
  // Writes a file, with the folders above it.
  void Put(const std::string& path, const std::string& contents) const;
  void MakeFolder(const std::string& path) const;
  void Remove(const std::string& path) const;
  // The contents; fails the test when there is no such file.
  std::string Get(const std::string& path) const;
  bool Has(const std::string& path) const;

 private:
  std::string root_;
};

}  // namespace base
