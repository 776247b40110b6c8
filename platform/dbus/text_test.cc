#include "dbus/text.h"

#include <gtest/gtest.h>

#include <string>

namespace dbus {
namespace {

TEST(Text, IsUtf8WithoutZeroBytesAndNoncharacters) {
  using namespace std::string_literals;
  const struct {
    std::string text;
    bool valid;
  } kCases[] = {
      {"", true},
      {"plain", true},
      {"\xc3\xa9", true},
      {"\xe2\x82\xac", true},
      {"\xf0\x9f\x8e\x89 end", true},
      {"\xf4\x8f\xbf\xbd", true},
      {"\xf4\x8f\xbf\xbf", false},  // The last code point, a noncharacter.
      {"\xef\xb7\x90", false},      // U+FDD0, another.
      {"zero \0 byte"s, false},
      {"\xff", false},
      {"\x80", false},
      {"\xc3", false},
      {"\xc3(", false},
      {"\xe2\x82", false},
      {"\xc0\xaf", false},          // "/", overlong.
      {"\xe0\x80\xaf", false},      // The same.
      {"\xed\xa0\x80", false},      // A surrogate.
      {"\xf4\x90\x80\x80", false},  // Past the last code point.
      {"\xf8\x88\x80\x80\x80", false},
  };
  for (const auto& test : kCases) EXPECT_EQ(IsText(test.text), test.valid) << test.text;
}

}  // namespace
}  // namespace dbus
