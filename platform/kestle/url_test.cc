#include "kestle/url.h"

#include <gtest/gtest.h>

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

}  // namespace
}  // namespace kestle
