// A temporary folder that replaces "/" in every path that `base/files.h` gets. Removed with its
// contents by the destructor. One at a time.
#pragma once

#include <string>

namespace base {

class ScopedRoot {
 public:
  ScopedRoot();
  ~ScopedRoot();
  ScopedRoot(const ScopedRoot&) = delete;
  ScopedRoot& operator=(const ScopedRoot&) = delete;

  // The real path of a path in the code under test.
  [[nodiscard]] std::string Real(const std::string& path) const { return root_ + path; }
  // Writes a file and creates its folders.
  void Put(const std::string& path, const std::string& contents) const;
  void MakeFolder(const std::string& path) const;
  void Remove(const std::string& path) const;
  // The contents; fails the test if the file does not exist.
  [[nodiscard]] std::string Get(const std::string& path) const;
  [[nodiscard]] bool Has(const std::string& path) const;

 private:
  std::string root_;
};

}  // namespace base
