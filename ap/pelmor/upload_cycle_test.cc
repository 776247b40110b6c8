#include "ap/pelmor/testing/uploader_test_base.h"

namespace varelnos::ap {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char kMetricsUrl[] = "https://service/v1/dev/metrics:batchCreatePoints";

class UploadCycle : public UploaderTest {};

TEST_F(UploadCycle, AnUnregisteredDeviceEndsTheCycleBeforeAnythingElse) {
  Record("a");
  device_.Unregister();
  journal_.clear();
  uploader_->Upload();
  EXPECT_THAT(journal_, ElementsAre("registered?"));
  device_.Register("dev");
  EXPECT_THAT(UploadedBody(), HasSubstr(R"("metricName":"a")"));
}

TEST_F(UploadCycle, WithoutATokenTheClockIsNotQueried) {
  oauth2_.LoseToken();
  uploader_->Upload();
  EXPECT_THAT(journal_, ElementsAre("registered?", "token?"));
}

TEST_F(UploadCycle, BeforeNetworkTimeTheCycleEndsWithoutALogLine) {
  Record("a");
  uploader_->RecordStructuredData("type", "data");
  clock_client_.ForgetNetworkTime();
  journal_.clear();
  uploader_->Upload();
  EXPECT_THAT(journal_, ElementsAre("registered?", "token?", "clock?"));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(UploadCycle, RunsItsStepsInOrder) {
  Record("a");
  uploader_->RecordStructuredData("type", "abc");
  journal_.clear();
  uploader_->Upload();
  EXPECT_THAT(journal_, ElementsAre("registered?", "token?", "clock?",
                                    // First the log chain.
                                    "registered?", "token?",
                                    "sample AccessPoint.PelmorStructuredLog.RequestWireSize 4",
                                    "token?", "post https://service/v1/dev/structuredLogs",
                                    "sample AccessPoint.PelmorMetrics.RequestPointCount 1",
                                    "sample AccessPoint.PelmorMetrics.RequestWireSize 147",
                                    "sample AccessPoint.PelmorMetrics.RequestWireSizePerPoint 147",
                                    "token?", std::string("post ") + kMetricsUrl));
}

TEST_F(UploadCycle, ADeviceIdNeverBecomesTheHostOfAUrl) {
  device_.Register("evil.example");
  for (const char* const base : {"", "/", "//", "https:", "https://", "https:///"}) {
    RestartWith(base);
    Record("a");
    uploader_->RecordStructuredData("type", "abc");
    uploader_->Upload();
    ASSERT_EQ(transport_->requests().size(), 2u);
    // Only the base, which the transport rejects.
    EXPECT_EQ(transport_->TakeRequest().url, base);
    EXPECT_EQ(transport_->TakeRequest().url, base);
    transport_->Fail("refused");
    transport_->Fail("refused");
    uploader_->Upload();
    EXPECT_EQ(transport_->requests().size(), 2u) << "both are kept";
  }
}

TEST_F(UploadCycle, WithoutPointsThereIsNoMetricsRequestButTheLogChainRuns) {
  uploader_->RecordStructuredData("type", "abc");
  uploader_->Upload();
  ASSERT_EQ(transport_->requests().size(), 1u);
  EXPECT_EQ(transport_->TakeRequest().url, "https://service/v1/dev/structuredLogs");
}

TEST_F(UploadCycle, TheRequestHasTheTokenAndOneContentType) {
  Record("a");
  uploader_->Upload();
  const auto request = transport_->TakeRequest();
  EXPECT_EQ(request.url, kMetricsUrl);
  EXPECT_THAT(request.headers, ElementsAre(testing::Pair("Authorization", "Bearer token"),
                                           testing::Pair("Content-Type", "application/json")));
}

TEST_F(UploadCycle, AnEmptyDeviceIdContinuesAndAddsNothingToTheUrl) {
  device_.Register("");
  Record("a");
  uploader_->Upload();
  EXPECT_EQ(transport_->TakeRequest().url, "https://service/v1/metrics:batchCreatePoints");
}

TEST_F(UploadCycle, CountsGroupsAsPoints) {
  for (const char* const name : {"a", "b", "c"})
    for (int i = 0; i < 10; ++i) Record(name);
  journal_.clear();
  const size_t size = UploadedBody().size();
  EXPECT_THAT(journal_,
              testing::IsSupersetOf(
                  {std::string("sample AccessPoint.PelmorMetrics.RequestPointCount 3"),
                   "sample AccessPoint.PelmorMetrics.RequestWireSize " + std::to_string(size),
                   "sample AccessPoint.PelmorMetrics.RequestWireSizePerPoint " +
                       std::to_string(size / 3)}));
}

TEST_F(UploadCycle, TheStartTimeIsThatOfTheOldestPointAndIsSaved) {
  Record("a");
  clock_.Advance(base::TimeDelta::FromMicroseconds(1'500'000));
  Record("b");
  EXPECT_THAT(UploadedBody(), HasSubstr(R"("startTime":{"seconds":1700000000})"));
  EXPECT_EQ(root_.Get(kStartTimePath), "1700000000000000");
  EXPECT_THAT(log_.lines(), ElementsAre("INFO Set start time from first point timestamp: "
                                        "2023-11-14T22:13:20.000000Z",
                                        "INFO Saved start time: 2023-11-14T22:13:20.000000Z"));
}

TEST_F(UploadCycle, TheStartTimeDoesNotChangeAgain) {
  Record("a");
  uploader_->Upload();
  transport_->Answer(200);
  clock_.Advance(base::TimeDelta::FromSeconds(100));
  Record("b");
  EXPECT_THAT(UploadedBody(), HasSubstr(R"("startTime":{"seconds":1700000000})"));
  EXPECT_EQ(root_.Get(kStartTimePath), "1700000000000000");
}

TEST_F(UploadCycle, TheStartTimeSurvivesARestart) {
  root_.Put(kStartTimePath, "1600000000000001");
  Restart();
  EXPECT_THAT(log_.lines(), ElementsAre("INFO Loaded start time: 2020-09-13T12:26:40.000001Z"));
  Record("a");
  EXPECT_THAT(UploadedBody(), HasSubstr(R"("startTime":{"seconds":1600000000})"));
}

TEST_F(UploadCycle, AnUnusableStartTimeFileIsLikeNone) {
  for (const char* const contents :
       {"1600000000000000\n", "", " 16", "abc", "99999999999999999999", "1600000000000000 "}) {
    root_.Put(kStartTimePath, contents);
    log_.Clear();
    Restart();
    EXPECT_THAT(log_.lines(), IsEmpty()) << contents;
    Record("a");
    EXPECT_THAT(UploadedBody(), HasSubstr(R"("startTime":{"seconds":1700000000})")) << contents;
  }
}

TEST_F(UploadCycle, ReadsAStartTimeBeforeTheEpoch) {
  root_.Put(kStartTimePath, "-1000000");
  Restart();
  Record("a");
  EXPECT_THAT(UploadedBody(), HasSubstr(R"("startTime":{"seconds":-1})"));
}

TEST_F(UploadCycle, AFailureToSaveTheStartTimeIsFatal) {
  root_.Remove("/tmp/ap");
  Record("a");
  EXPECT_DEATH(uploader_->Upload(),
               "Check failed: base::WriteFile\\(kStartTimePath, serialized.data\\(\\), "
               "serialized.size\\(\\)\\) != -1\n");
}

TEST_F(UploadCycle, AMissingReleaseFileIsFatal) {
  root_.Remove(kReleaseFile);
  EXPECT_DEATH(Restart(),
               "Check failed: lsb_release_.Load\\(base::FilePath\\(\"/etc/lsb-release\"\\)\\): "
               "Unable to load lsb-release");
}

TEST_F(UploadCycle, AMalformedReleaseFileIsFatal) {
  root_.Put(kReleaseFile, "no pair\n");
  EXPECT_DEATH(Restart(), "Unable to load lsb-release");
}

TEST_F(UploadCycle, RemovesAcceptedPoints) {
  RecordNumbered(1, 3);
  EXPECT_EQ(NumbersIn(UploadedBody()), "1 2 3");
  transport_->Answer(200, "{}");
  EXPECT_EQ(UploadedBody(), "");
}

TEST_F(UploadCycle, ExpiredTokenKeepsPointsForTheNextCycle) {
  RecordNumbered(1, 2);
  uploader_->Upload();
  log_.Clear();
  journal_.clear();
  transport_->Answer(401, "expired");
  EXPECT_THAT(journal_, ElementsAre("sample AccessPoint.PelmorMetrics.ResponseStatusCode 401",
                                    "validate 401"));
  EXPECT_THAT(log_.lines(), ElementsAre("INFO Upload failed due to expired access token"));
  EXPECT_EQ(UploadedBody(), "");  // No immediate retry without a token.
  oauth2_.HoldToken("new token");
  Record("p", 3);
  EXPECT_EQ(NumbersIn(UploadedBody()), "1 2 3");
  EXPECT_EQ(transport_->requests().back().Header("Authorization"), "Bearer new token");
}

TEST_F(UploadCycle, AnyOtherRejectionDropsThePoints) {
  for (const int status : {199, 300, 302, 400, 403, 404, 429, 500, 503}) {
    Record("a");
    uploader_->Upload();
    log_.Clear();
    transport_->Answer(status, "the reason");
    EXPECT_THAT(log_.lines(), ElementsAre("WARNING Error uploading metrics: the reason"));
    EXPECT_EQ(UploadedBody(), "") << status;
  }
}

TEST_F(UploadCycle, EverySuccessStatusDropsThePointsWithoutALogLine) {
  for (const int status : {200, 204, 299}) {
    Record("a");
    uploader_->Upload();
    log_.Clear();
    transport_->Answer(status);
    EXPECT_THAT(log_.lines(), IsEmpty()) << status;
    EXPECT_EQ(UploadedBody(), "") << status;
  }
}

TEST_F(UploadCycle, ATransportErrorKeepsThePointsAndSendsNoSample) {
  RecordNumbered(1, 2);
  uploader_->Upload();
  log_.Clear();
  journal_.clear();
  transport_->Fail("connection refused");
  EXPECT_THAT(log_.lines(), ElementsAre("ERROR Error uploading metrics: connection refused"));
  EXPECT_THAT(journal_, IsEmpty());
  Record("p", 3);
  EXPECT_EQ(NumbersIn(UploadedBody()), "1 2 3");
}

TEST_F(UploadCycle, PointsKeptByAFailureAreStillTrimmed) {
  RecordNumbered(1, 600);
  uploader_->Upload();
  transport_->Fail("no route");
  clock_.Advance(base::TimeDelta::FromMinutes(10));
  RecordNumbered(601, 1200);
  const std::string both = NumbersIn(UploadedBody());
  EXPECT_TRUE(both.starts_with("201 ")) << both.substr(0, 20);
  transport_->Fail("no route");
  clock_.Advance(base::TimeDelta::FromMinutes(20));
  EXPECT_TRUE(NumbersIn(UploadedBody()).starts_with("601 "));
}

TEST_F(UploadCycle, AnOverlappingCycleSendsThePointsAgain) {
  Record("p", 1);
  EXPECT_EQ(NumbersIn(UploadedBody()), "1");
  Record("p", 2);
  EXPECT_EQ(NumbersIn(UploadedBody()), "1 2");
  EXPECT_EQ(transport_->outstanding(), 2u);
  // The first response decides about all of them.
  transport_->Answer(200);
  EXPECT_EQ(UploadedBody(), "");
  transport_->Answer(200);
}

TEST_F(UploadCycle, KeepsPointsThatWereRecordedDuringARequest) {
  Record("p", 1);
  uploader_->Upload();
  Record("p", 2);
  transport_->Answer(200);
  EXPECT_EQ(NumbersIn(UploadedBody()), "2");
}

TEST_F(UploadCycle, KeepsPointsOfAnUnregisteredDeviceForHalfAnHour) {
  Record("p", 1);
  device_.Unregister();
  uploader_->Upload();
  clock_.Advance(base::TimeDelta::FromMinutes(20));
  Record("p", 2);
  clock_.Advance(base::TimeDelta::FromMinutes(10));
  device_.Register("dev");
  EXPECT_EQ(NumbersIn(UploadedBody()), "2");
}

TEST_F(UploadCycle, DropsPointsThatGetTooOldDuringTheCallsOfTheLogChain) {
  constexpr auto kQuestion = base::TimeDelta::FromMicroseconds(1);
  Record("p", 1);
  // The cycle calls once for itself and once for the log chain, and then checks ages.
  clock_.Advance(kMaxPointAge);
  clock_.Advance(base::TimeDelta::FromMicroseconds(-2));
  Record("p", 2);
  device_.WhileAsked([this, kQuestion] { clock_.Advance(kQuestion); });
  EXPECT_EQ(NumbersIn(UploadedBody()), "2");
}

TEST_F(UploadCycle, MayBeDestroyedWhileRequestsAreOutstanding) {
  Record("a");
  uploader_->RecordStructuredData("type", "data");
  uploader_->Upload();
  EXPECT_EQ(transport_->outstanding(), 2u);
  // They end with the transport, whose only owner is the uploader.
  const std::weak_ptr<kestle::http::Transport> transport = transport_;
  transport_.reset();
  EXPECT_FALSE(transport.expired());
  uploader_.reset();
  EXPECT_TRUE(transport.expired());
}

}  // namespace
}  // namespace varelnos::ap
