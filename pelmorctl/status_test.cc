// The daemon's status: parsing, printing, and the doctor's conditions on it.

#include "pelmorctl/status.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/testing/fake_clock.h"
#include "pelmorctl/status_checks.h"

namespace pelmorctl {
namespace {

using testing::HasSubstr;

constexpr char kLine[] =
    "points recorded=2500 accepted=1000 pending=0 in_flight=0 no_token=0 no_network_time=0 "
    "too_old=0 over_limit=1500 rejected=0 pushed_out=0 dropped_at=1700000000; "
    "logs recorded=3 accepted=3 pending=0 in_flight=0 no_token=0 no_network_time=0 too_old=0 "
    "over_limit=0 rejected=0 pushed_out=0; "
    "gates refresh_token=yes access_token=no network_time=yes registered=unknown; "
    "ticks count=12 time=1700000060; metrics time=1700000060 status=200; "
    "token time=1700000000 error=\"no; route=x\"";

StatusFinding Found(const std::string& line) { return *DaemonStatus::Parse(line); }

TEST(DaemonStatus, FollowsItsGrammar) {
  const auto status = DaemonStatus::Parse(kLine);
  ASSERT_TRUE(status);
  EXPECT_EQ(status->sections().size(), 6u);
  EXPECT_EQ(status->Number("points", "over_limit"), 1500);
  EXPECT_EQ(status->Text("gates", "access_token"), "no");
  EXPECT_EQ(status->Text("token", "error"), "no; route=x");
  EXPECT_EQ(status->Number("token", "error"), 0);
  EXPECT_EQ(status->Text("log", "status"), "");
  EXPECT_FALSE(status->Has("log"));
}

TEST(DaemonStatus, ALineThatViolatesTheGrammarIsRejected) {
  for (const char* const line : {"",
                                 "points",
                                 "points ",
                                 "points a",
                                 "points a=",
                                 "points =1",
                                 "points a=1;",
                                 "points a=1; ",
                                 "points a=1 ",
                                 "points  a=1",
                                 "Points a=1",
                                 "points a=1x",
                                 "points a=-",
                                 "points a=--1",
                                 "points a=\"",
                                 "points a=\"b",
                                 "points a=\"b\"c",
                                 "points a=\"\\\"",
                                 "points a=\"\n\"",
                                 "points a=1\n",
                                 "points a=1;b c=1",
                                 "Serving requests"})
    EXPECT_FALSE(DaemonStatus::Parse(line)) << line;
}

TEST(DaemonStatus, UnknownSectionsAndKeysAreKept) {
  const auto status = DaemonStatus::Parse("points a=1 b=-2; later c=word d=\"\"");
  ASSERT_TRUE(status);
  EXPECT_EQ(FormatStatusAsJson(*status), R"({"points":{"a":1,"b":-2},"later":{"c":"word","d":""}})"
                                         "\n");
}

TEST(DaemonStatus, CanBePrintedAsATable) {
  EXPECT_EQ(FormatStatusTable(*DaemonStatus::Parse(kLine)),
            "                                points        logs\n"
            "recorded                          2500           3\n"
            "accepted                          1000           3\n"
            "pending                              0           0\n"
            "in flight                            0           0\n"
            "dropped: no token                    0           0\n"
            "dropped: no network time             0           0\n"
            "dropped: too old                     0           0\n"
            "dropped: over the limit           1500           0\n"
            "dropped: rejected                    0           0\n"
            "dropped: pushed out                  0           0\n"
            "\n"
            "refresh token             yes\n"
            "access token              no\n"
            "network time              yes\n"
            "registered                unknown\n"
            "ticks                     12, the last at 2023-11-14 22:14:20 UTC\n"
            "\n"
            "last metrics              HTTP 200 at 2023-11-14 22:14:20 UTC\n"
            "last log                  none yet\n"
            "last token                no response at 2023-11-14 22:13:20 UTC: no; route=x\n");
}

TEST(DaemonStatus, CanBePrintedAsJson) {
  EXPECT_THAT(
      FormatStatusAsJson(*DaemonStatus::Parse(kLine)),
      testing::AllOf(HasSubstr(R"("over_limit":1500)"), HasSubstr(R"("access_token":false)"),
                     HasSubstr(R"("registered":"unknown")"),
                     HasSubstr(R"("token":{"time":1700000000,"error":"no; route=x"})")));
}

class StatusChecks : public testing::Test {
 protected:
  base::FakeClock clock_{base::Time::FromTimeT(1700003599)};
};

TEST_F(StatusChecks, AnUnknownStatusFailsEachCondition) {
  const StatusFinding unknown = base::Failure{"no answer"};
  for (const Condition& condition :
       {CheckAccessToken(unknown), CheckUploads(unknown), CheckRecords(unknown)}) {
    EXPECT_FALSE(condition.passed) << condition.name;
    EXPECT_EQ(condition.finding, "unknown: no answer");
  }
  EXPECT_THAT(AdviseOnCredentials(unknown), HasSubstr("credentials command"));
}

TEST_F(StatusChecks, AnAccessTokenPassesWhateverTheLastResponse) {
  EXPECT_TRUE(CheckAccessToken(Found("gates access_token=yes")).passed);
  EXPECT_TRUE(CheckAccessToken(Found("gates access_token=yes; token time=1 status=400")).passed);
  EXPECT_THAT(CheckAccessToken(Found("gates access_token=no")).finding,
              HasSubstr("has not requested one"));
}

TEST_F(StatusChecks, ARejectedClientIsAdvisedToCorrectItsSecret) {
  for (const char* const error : {"invalid_client", "unauthorized_client"}) {
    const StatusFinding finding = Found(
        "gates access_token=no; token time=1700000000 status=401 "
        "error=\"" +
        std::string(error) + "\"");
    const Condition condition = CheckAccessToken(finding);
    EXPECT_FALSE(condition.passed);
    EXPECT_EQ(condition.finding,
              "the daemon has none; the token endpoint's last response: HTTP 401, " +
                  std::string(error) + ", at 2023-11-14 22:13:20 UTC");
    EXPECT_THAT(condition.advice, HasSubstr("correct PELMOR_CLIENT_SECRET"));
    EXPECT_EQ(AdviseOnCredentials(finding), condition.advice);
  }
  EXPECT_THAT(AdviseOnCredentials(Found("token error=\"invalid_scope\"")),
              HasSubstr("correct PELMOR_SCOPE"));
  EXPECT_EQ(AdviseOnCredentials(Found("token error=\"invalid_grant\"")),
            AdviseOnCredentials(Found("gates access_token=no")));
}

TEST_F(StatusChecks, AnUploadThatWasNotAcceptedFails) {
  const struct {
    const char* line;
    const char* finding;  // Null: passes.
    const char* advice;
  } kCases[] = {
      {"gates access_token=yes", nullptr, ""},
      {"metrics time=1 status=200; log time=1 status=204", nullptr, ""},
      {"metrics time=1 status=500", "metrics request was not accepted: HTTP 500", "daemon's log"},
      {"metrics time=1 status=401", "HTTP 401", "PELMOR_URL and PELMOR_SCOPE"},
      {"metrics time=1 error=\"no route\"", "no response, no route", "'monitoring-service'"},
      {"metrics time=1 status=200; log time=1 status=403", "log request was not accepted: HTTP 403",
       "daemon's log"},
  };
  for (const auto& test : kCases) {
    const Condition condition = CheckUploads(Found(test.line));
    EXPECT_EQ(condition.passed, !test.finding) << test.line;
    EXPECT_THAT(condition.finding, HasSubstr(test.finding ? test.finding : ""));
    EXPECT_THAT(condition.advice, HasSubstr(test.advice));
  }
}

TEST_F(StatusChecks, ADroppedRecordFailsForAnHour) {
  EXPECT_EQ(CheckRecords(Found(kLine)).finding,
            "dropped since the daemon's start: 1500 points over the limit of a cycle; the last at "
            "2023-11-14 22:13:20 UTC");
  EXPECT_THAT(CheckRecords(Found(kLine)).advice, HasSubstr("INTERVAL"));
  clock_.Advance(base::TimeDelta::FromSeconds(1));
  const Condition later = CheckRecords(Found(kLine));
  EXPECT_TRUE(later.passed);
  EXPECT_EQ(later.finding, "none has been dropped since 2023-11-14 22:13:20 UTC");
}

TEST_F(StatusChecks, ARecordThatWasNotAcceptedFromItsCallerIsNotALoss) {
  EXPECT_TRUE(CheckRecords(Found("points recorded=9 no_token=4 no_network_time=5")).passed);
}

TEST_F(StatusChecks, EachReasonForALossIsListed) {
  const Condition condition =
      CheckRecords(Found("points too_old=1 over_limit=0 rejected=3 pushed_out=4 dropped_at=1; "
                         "logs pushed_out=5 dropped_at=1700000000"));
  EXPECT_THAT(condition.finding,
              HasSubstr("3 points rejected by the service, 1 points too old, 4 points removed by "
                        "the response to another request, 5 logs pushed out by newer ones"));
  EXPECT_THAT(condition.advice, HasSubstr("daemon's log"));
}

}  // namespace
}  // namespace pelmorctl
