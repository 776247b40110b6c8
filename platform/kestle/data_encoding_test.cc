#include "kestle/data_encoding.h"

#include <gtest/gtest.h>

namespace kestle {
namespace {

// The vectors of RFC 4648, section 10, and the two characters that other alphabets replace.
TEST(Base64Encode, FollowsTheStandard) {
  const struct {
    std::string data;
    const char* text;
  } kCases[] = {
      {"", ""},
      {"f", "Zg=="},
      {"fo", "Zm8="},
      {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="},
      {"fooba", "Zm9vYmE="},
      {"foobar", "Zm9vYmFy"},
      {"\xfb\xff\x01", "+/8B"},
      {std::string(3, '\0'), "AAAA"},
  };
  for (const auto& test : kCases) EXPECT_EQ(data_encoding::Base64Encode(test.data), test.text);
}

}  // namespace
}  // namespace kestle
