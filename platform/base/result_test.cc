#include "base/result.h"

#include <gtest/gtest.h>

#include <memory>

namespace base {
namespace {

Result<std::unique_ptr<int>> Make(bool succeed) {
  if (!succeed) return Failure{"no number"};
  return std::make_unique<int>(7);
}

Result<> Check(bool succeed) {
  if (const auto number = Make(succeed); !number) return number.failure();
  return {};
}

TEST(Result, HasItsValueOrTheReasonForNone) {
  EXPECT_EQ(**Make(true), 7);
  EXPECT_EQ(Make(false).reason(), "no number");
}

TEST(Result, PassesAFailureOn) {
  EXPECT_TRUE(Check(true));
  EXPECT_EQ(Check(false).reason(), "no number");
}

}  // namespace
}  // namespace base
