#include "ap/pelmor/web_safe_base64.h"

#include <gtest/gtest.h>

namespace varelnos::ap {
namespace {

TEST(WebSafeBase64Encode, ReplacesTwoCharactersAndKeepsThePadding) {
  const struct {
    std::string data;
    const char* text;
  } kCases[] = {
      {"", ""},
      {"f", "Zg=="},
      {"\xfb\xff\x01", "-_8B"},
      {"\xfb\xff", "-_8="},
      {std::string("\0\xff", 2), "AP8="},
      {"foobar", "Zm9vYmFy"},
  };
  for (const auto& test : kCases) EXPECT_EQ(WebSafeBase64Encode(test.data), test.text);
}

}  // namespace
}  // namespace varelnos::ap
