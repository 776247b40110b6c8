#include "base/memory.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace base {
namespace {

constexpr size_t kBlocks = 100'000;
constexpr size_t kBlockBytes = 100;

size_t ResidentBytes() {
  std::ifstream statm("/proc/self/statm");
  size_t size_in_pages = 0;
  size_t resident_pages = 0;
  statm >> size_in_pages >> resident_pages;
  return resident_pages * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

TEST(ReleaseFreeMemory, ReturnsFreeMemoryBelowUsedMemory) {
  std::vector<std::unique_ptr<std::string>> blocks;
  for (size_t i = 0; i < kBlocks; ++i)
    blocks.push_back(std::make_unique<std::string>(kBlockBytes, 'x'));
  const std::unique_ptr<std::string> last = std::move(blocks.back());
  const size_t before = ResidentBytes();
  blocks.clear();
  ReleaseFreeMemory();
  EXPECT_LT(ResidentBytes() + kBlocks * kBlockBytes, before);
}

}  // namespace
}  // namespace base
