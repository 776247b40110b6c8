#include "kestle/flag_helper.h"

#include <gtest/gtest.h>
#include <sysexits.h>

#include <cstdio>
#include <vector>

namespace kestle {
namespace {

void Parse(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "ap-pelmor");
  const int count = static_cast<int>(arguments.size());
  arguments.push_back(nullptr);
  FlagHelper::Init(count, arguments.data(), "the help text");
}

TEST(FlagHelper, AcceptsNoArguments) { Parse({}); }

TEST(FlagHelperDeathTest, HelpPrintsTheUsageAndExitsWithSuccess) {
  const auto parse = [] {
    dup2(STDERR_FILENO, STDOUT_FILENO);  // A death test sees standard error alone.
    Parse({"--help"});
  };
  EXPECT_EXIT(parse(), testing::ExitedWithCode(EX_OK), "Usage: ap-pelmor .*the help text");
}

TEST(FlagHelperDeathTest, UnknownArgumentsAreReportedInOneLine) {
  const struct {
    std::vector<const char*> arguments;
    const char* line;
  } kCases[] = {
      {{"--verbose"}, "^ap-pelmor: unknown flag '--verbose'; see 'ap-pelmor --help'\n$"},
      {{"-x"}, "^ap-pelmor: unknown flag '-x'; see 'ap-pelmor --help'\n$"},
      {{"--help=5"}, "^ap-pelmor: unknown flag '--help=5'; see 'ap-pelmor --help'\n$"},
      {{"now"}, "^ap-pelmor: unexpected argument 'now'; see 'ap-pelmor --help'\n$"},
      {{"--", "--help"}, "^ap-pelmor: unexpected argument '--help'; see 'ap-pelmor --help'\n$"},
  };
  for (const auto& test : kCases)
    EXPECT_EXIT(Parse(test.arguments), testing::ExitedWithCode(EX_USAGE), test.line);
}

}  // namespace
}  // namespace kestle
