#include "base/strings.h"

#include <gtest/gtest.h>

namespace base {
namespace {

TEST(StringToInt, AcceptsAWholeDecimalNumberAndNothingElse) {
  const struct {
    const char* text;
    bool accepted;
    int value;
  } kCases[] = {
      {"0", true, 0},
      {"600", true, 600},
      {"-1", true, -1},
      {"007", true, 7},
      {"2147483647", true, INT32_MAX},
      {"-2147483648", true, INT32_MIN},
      {"2147483648", false, 0},
      {"", false, 0},
      {"abc", false, 0},
      {"60 ", false, 0},
      {" 60", false, 0},
      {"+60", false, 0},
      {"6.0", false, 0},
      {"0x10", false, 0},
      {"60\n", false, 0},
      {"-", false, 0},
  };
  for (const auto& test : kCases) {
    int value = 0;
    EXPECT_EQ(StringToInt(test.text, &value), test.accepted) << '"' << test.text << '"';
    EXPECT_EQ(value, test.value) << '"' << test.text << '"';
  }
}

TEST(StringToInt, AFailureLeavesTheValueUnchanged) {
  int value = 600;
  EXPECT_FALSE(StringToInt("60 ", &value));
  EXPECT_EQ(value, 600);
}

TEST(StringToInt64, CoversTheWholeRange) {
  int64_t value = 0;
  EXPECT_TRUE(StringToInt64("-9223372036854775808", &value));
  EXPECT_EQ(value, INT64_MIN);
  EXPECT_TRUE(StringToInt64("9223372036854775807", &value));
  EXPECT_EQ(value, INT64_MAX);
  EXPECT_FALSE(StringToInt64("9223372036854775808", &value));
}

TEST(Int64ToString, WritesPlainDecimal) {
  EXPECT_EQ(Int64ToString(0), "0");
  EXPECT_EQ(Int64ToString(INT64_MIN), "-9223372036854775808");
}

}  // namespace
}  // namespace base
