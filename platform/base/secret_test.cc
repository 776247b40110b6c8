#include "base/secret.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace base {
namespace {

TEST(Secret, NothingOfAWipedStringIsLeftInItsBuffer) {
  for (const size_t length : {size_t{1}, size_t{15}, size_t{16}, size_t{4000}}) {
    std::string secret(length, 'x');
    const size_t capacity = secret.capacity();
    // What an earlier, longer value has left.
    secret.resize(length / 2);
    Wipe(&secret);
    EXPECT_EQ(secret, "");
    ASSERT_EQ(secret.capacity(), capacity) << "a buffer has been let go of unwiped";
    EXPECT_EQ(std::count(secret.data(), secret.data() + length, 'x'), 0) << length;
  }
}

TEST(Secret, AnEmptyStringCanBeWiped) {
  std::string secret;
  Wipe(&secret);
  EXPECT_EQ(secret, "");
}

TEST(Secret, AReallocatedBlockKeepsItsContent) {
  char* block = static_cast<char*>(ReallocateWiped(nullptr, 6));
  memcpy(block, "secret", 6);
  for (const size_t size : {size_t{6000}, size_t{6}, size_t{3}}) {
    block = static_cast<char*>(ReallocateWiped(block, size));
    EXPECT_EQ(std::string(block, std::min(size, size_t{6})),
              std::string("secret", std::min(size, size_t{6})));
  }
  FreeWiped(block);
}

TEST(Secret, NothingCanBeFreed) { FreeWiped(nullptr); }

}  // namespace
}  // namespace base
