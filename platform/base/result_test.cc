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

struct Numbered : Failure {
  int number = 0;
};

TEST(Result, CanHaveAFailureOfItsOwn) {
  const Result<int, Numbered> result = Numbered{{"no number"}, 7};
  EXPECT_EQ(result.reason(), "no number");
  EXPECT_EQ(result.failure().number, 7);
}

}  // namespace
}  // namespace base
