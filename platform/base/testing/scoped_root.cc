#include "base/testing/scoped_root.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "base/files.h"

namespace base {

namespace fs = std::filesystem;

ScopedRoot::ScopedRoot() {
  std::string pattern = (fs::temp_directory_path() / "root.XXXXXX").string();
  root_ = mkdtemp(pattern.data());
  g_root_for_testing = root_;
}

ScopedRoot::~ScopedRoot() {
  g_root_for_testing.clear();
  std::error_code ignored;
  fs::remove_all(root_, ignored);
}

void ScopedRoot::Put(const std::string& path, const std::string& contents) const {
  fs::create_directories(fs::path(Real(path)).parent_path());
  std::ofstream(Real(path), std::ios::binary) << contents;
}

void ScopedRoot::MakeFolder(const std::string& path) const { fs::create_directories(Real(path)); }

void ScopedRoot::Remove(const std::string& path) const { fs::remove_all(Real(path)); }

std::string ScopedRoot::Get(const std::string& path) const {
  std::ifstream file(Real(path), std::ios::binary);
  EXPECT_TRUE(file.is_open()) << "no file " << path;
  return {std::istreambuf_iterator<char>(file), {}};
}

bool ScopedRoot::Has(const std::string& path) const { return fs::exists(Real(path)); }

}  // namespace base
