#include "base/logging.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

#include "base/testing/log_capture.h"

namespace base {
namespace {

using testing::ElementsAre;

std::string StderrOf(const std::function<void()>& action) {
  testing::internal::CaptureStderr();
  action();
  return testing::internal::GetCapturedStderr();
}

TEST(Logging, ALineHasTimeSeverityProcessFileAndLine) {
  InitLogging("ap-pelmor", {});
  const std::string line = StderrOf([] { LOG(WARNING) << "Trouble: " << 42; });
  EXPECT_THAT(line, testing::MatchesRegex(
                        "[0-9]+-[0-9]+-[0-9]+T[0-9]+:[0-9]+:[0-9]+\\.[0-9]+Z WARNING "
                        "ap-pelmor\\[[0-9]+\\] logging_test\\.cc:[0-9]+\\] Trouble: 42\n"));
}

TEST(Logging, WithoutAHeaderALineIsOnlyTheMessage) {
  InitLogging("ap-pelmor", {.with_header = false});
  EXPECT_EQ(StderrOf([] { LOG(INFO) << "Hello"; }), "Hello\n");
  InitLogging("ap-pelmor", {});
}

TEST(Logging, WritesNothingToDisabledStandardError) {
  InitLogging("ap-pelmor", {.to_stderr = false});
  EXPECT_EQ(StderrOf([] { LOG(ERROR) << "Hello"; }), "");
  InitLogging("ap-pelmor", {});
}

TEST(Logging, WritesNothingToAFileThatGotTheNumberOfStandardError) {
  const auto run = [] {
    int ends[2];
    if (pipe(ends) != 0) std::_Exit(2);
    close(STDERR_FILENO);
    InitLogging("ap-pelmor", {});
    if (dup(ends[1]) != STDERR_FILENO) std::_Exit(3);
    LOG(ERROR) << "Hello";
    close(STDERR_FILENO);
    close(ends[1]);
    char byte = 0;
    std::_Exit(read(ends[0], &byte, 1) == 0 ? 0 : 1);
  };
  EXPECT_EXIT(run(), ::testing::ExitedWithCode(0), "");
}

TEST(Logging, AMessageCannotForgeALine) {
  const LogCapture log;
  LOG(INFO) << "body: \r\n2026 FATAL ap-pelmor[1] x.cc:1] forged\t\x1b[31m\x7f";
  EXPECT_THAT(log.lines(), ElementsAre("INFO body: \\r\\n2026 FATAL ap-pelmor[1] x.cc:1] forged"
                                       "\\t\\x1b[31m\\x7f"));
}

TEST(Logging, DoesNotEscapeTextInOtherScripts) {
  const LogCapture log;
  LOG(INFO) << "Störung ☂";
  EXPECT_THAT(log.lines(), ElementsAre("INFO Störung ☂"));
}

TEST(Logging, ControlCharactersPastAsciiAreEscapedToo) {
  const LogCapture log;
  LOG(INFO) << "\xc2\x80 \xc2\x9b"
            << "31m \xc2\x9f \xc2\xa0 \xc2";
  EXPECT_THAT(log.lines(), ElementsAre("INFO \\xc2\\x80 \\xc2\\x9b"
                                       "31m \\xc2\\x9f \xc2\xa0 \\xc2"));
}

TEST(Logging, DoesNotCutAMessageWithinACharacter) {
  const LogCapture log;
  LOG(INFO) << std::string(kMaxLogMessageBytes - 2, 'x') << "☂!";
  EXPECT_THAT(log.lines(), ElementsAre("INFO " + std::string(kMaxLogMessageBytes - 2, 'x') +
                                       " [4 bytes left out]"));
}

TEST(Logging, CutsALongMessageAndGivesTheNumberOfMissingBytes) {
  const LogCapture log;
  LOG(INFO) << std::string(kMaxLogMessageBytes + 5, 'x');
  EXPECT_THAT(log.lines(),
              ElementsAre("INFO " + std::string(kMaxLogMessageBytes, 'x') + " [5 bytes left out]"));
}

TEST(Logging, DoesNotCutAMessageOfTheLargestSize) {
  const LogCapture log;
  LOG(INFO) << std::string(kMaxLogMessageBytes, 'x');
  EXPECT_THAT(log.lines(), ElementsAre("INFO " + std::string(kMaxLogMessageBytes, 'x')));
}

TEST(CheckDeathTest, AFailedCheckStopsTheProcessWithItsConditionAndMessage) {
  EXPECT_DEATH(CHECK(1 + 1 == 3) << "Arithmetic is sound",
               "FATAL .* logging_test.cc:[0-9]+] Check failed: 1 \\+ 1 == 3: Arithmetic is sound");
}

TEST(CheckDeathTest, ACheckNeedsNoMessage) { EXPECT_DEATH(CHECK(false), "Check failed: false\n"); }

TEST(CheckDeathTest, AFatalLineStopsTheProcess) {
  EXPECT_DEATH(LOG(FATAL) << "Unknown type: float", "FATAL .*Unknown type: float");
}

int Evaluated(int* evaluations) { return ++*evaluations; }

TEST(Check, ATrueCheckDoesNotEvaluateItsMessage) {
  int evaluations = 0;
  CHECK(evaluations == 0) << Evaluated(&evaluations);
  EXPECT_EQ(evaluations, 0);
}

}  // namespace
}  // namespace base
