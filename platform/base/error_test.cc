#include "base/error.h"

#include <gtest/gtest.h>

namespace base {
namespace {

TEST(Error, TheNewestEntryHeadsTheChain) {
  ErrorPtr error;
  Error::AddTo(&error, "ap", "io_error", "first");
  Error::AddTo(&error, "dbus", "x", "second");
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->GetDomain(), "dbus");
  EXPECT_EQ(error->GetMessage(), "second");
  ASSERT_NE(error->inner(), nullptr);
  EXPECT_EQ(error->inner()->GetCode(), "io_error");
  EXPECT_EQ(error->inner()->inner(), nullptr);
}

TEST(Error, KnowsTheFunctionThatRaisedIt) {
  ErrorPtr error;
  Error::AddTo(&error, "ap", "io_error", "x");
  EXPECT_STREQ(error->GetLocation().function, "TestBody");
}

TEST(Error, WithoutASinkNothingHappens) { Error::AddTo(nullptr, "ap", "io_error", "dropped"); }

}  // namespace
}  // namespace base
