// URLs, Base64 and error chains.

#include <gtest/gtest.h>

#include "kestle/data_encoding.h"
#include "kestle/error.h"
#include "kestle/url.h"

namespace kestle {
namespace {

TEST(CombineMultiple, JoinsByExactlyOneSlash) {
  const struct {
    const char* base;
    std::vector<std::string> parts;
    const char* url;
  } kCases[] = {
      {"https://h/v1", {"dev", "/structuredLogs"}, "https://h/v1/dev/structuredLogs"},
      {"https://h/v1/", {"dev", "structuredLogs"}, "https://h/v1/dev/structuredLogs"},
      {"https://h/v1//", {"/dev/", "//x"}, "https://h/v1/dev/x"},
      {"https://h", {"", "/metrics:batchCreatePoints"}, "https://h/metrics:batchCreatePoints"},
      {"https://h", {"dev", ""}, "https://h/dev"},
      {"https://h", {"/"}, "https://h"},
      {"https://h", {}, "https://h"},
      {"https://h/", {}, "https://h/"},
      {"", {"a", "b"}, "a/b"},
  };
  for (const auto& test : kCases) EXPECT_EQ(url::CombineMultiple(test.base, test.parts), test.url);
}

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
}  // namespace kestle
