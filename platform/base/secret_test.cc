#include "base/secret.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace base {
namespace {

TEST(Secret, WipingOverwritesTheWholeBuffer) {
  for (const size_t length : {size_t{1}, size_t{15}, size_t{16}, size_t{4000}}) {
    std::string secret(length, 'x');
    const size_t capacity = secret.capacity();
    // What an earlier, longer value has left.
    secret.resize(length / 2);
    Wipe(&secret);
    EXPECT_EQ(secret, "");
    ASSERT_EQ(secret.capacity(), capacity) << "a buffer was freed without wiping";
    EXPECT_EQ(std::count(secret.data(), secret.data() + length, 'x'), 0) << length;
  }
}

TEST(Secret, AnEmptyStringCanBeWiped) {
  std::string secret;
  Wipe(&secret);
  EXPECT_EQ(secret, "");
}

TEST(Secret, AReallocatedBlockKeepsItsContent) {
  const std::string content = "secret";
  char* block = static_cast<char*>(ReallocateWiped(nullptr, content.size()));
  content.copy(block, content.size());
  for (const size_t size : {size_t{6000}, size_t{6}, size_t{3}}) {
    block = static_cast<char*>(ReallocateWiped(block, size));
    const std::string kept = content.substr(0, size);
    EXPECT_EQ(std::string(block, kept.size()), kept);
  }
  FreeWiped(block);
}

TEST(Secret, FreeingNullDoesNothing) { FreeWiped(nullptr); }

}  // namespace
}  // namespace base
