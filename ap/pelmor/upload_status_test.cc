// The uploader's counters after each event of a record.

#include "ap/pelmor/testing/uploader_test_base.h"

namespace varelnos::ap {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// "recorded 2, accepted 1, in flight 1", without zeros.
std::vector<std::string> NonZero(const RecordCounts& counts) {
  constexpr const char* kReasons[kDropReasonCount] = {
      "no token", "no network time", "too old", "over limit", "rejected", "pushed out"};
  std::vector<std::string> counted;
  const auto add = [&counted](const std::string& what, uint64_t count) {
    if (count > 0) counted.push_back(what + " " + std::to_string(count));
  };
  add("recorded", counts.recorded);
  add("accepted", counts.accepted);
  add("pending", counts.pending);
  add("in flight", counts.in_flight);
  for (size_t reason = 0; reason < kDropReasonCount; ++reason)
    add(kReasons[reason], counts.dropped[reason]);
  return counted;
}

class UploadStatusTest : public UploaderTest {
 protected:
  [[nodiscard]] std::vector<std::string> Points() const {
    return NonZero(uploader_->Status().points);
  }
  [[nodiscard]] std::vector<std::string> Logs() const { return NonZero(uploader_->Status().logs); }
  void RecordLogs(int count) {
    for (int i = 0; i < count; ++i) uploader_->RecordStructuredData("type", "data");
  }
};

TEST_F(UploadStatusTest, AllCountsStartAtZero) {
  EXPECT_THAT(Points(), IsEmpty());
  EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UploadStatusTest, ARecordIsPendingThenInFlightThenAccepted) {
  Record("p");
  RecordLogs(1);
  EXPECT_THAT(Points(), ElementsAre("recorded 1", "pending 1"));
  EXPECT_THAT(Logs(), ElementsAre("recorded 1", "pending 1"));
  uploader_->Upload();
  EXPECT_THAT(Points(), ElementsAre("recorded 1", "in flight 1"));
  EXPECT_THAT(Logs(), ElementsAre("recorded 1", "in flight 1"));
  transport_->Answer(200);
  transport_->Answer(200);
  EXPECT_THAT(Points(), ElementsAre("recorded 1", "accepted 1"));
  EXPECT_THAT(Logs(), ElementsAre("recorded 1", "accepted 1"));
}

TEST_F(UploadStatusTest, AClosedGateIsTheReasonOfADrop) {
  clock_client_.ForgetNetworkTime();
  Record("p");
  RecordLogs(1);
  EXPECT_THAT(Points(), ElementsAre("recorded 1", "no network time 1"));
  EXPECT_THAT(Logs(), ElementsAre("recorded 1", "no network time 1"));
  oauth2_.LoseToken();
  Record("p");
  RecordLogs(1);
  EXPECT_THAT(Points(), ElementsAre("recorded 2", "no token 1", "no network time 1"));
  EXPECT_THAT(Logs(), ElementsAre("recorded 2", "no token 1", "no network time 1"));
}

TEST_F(UploadStatusTest, CountsPointsOverTheLimitBeforeAndInTheCycle) {
  RecordNumbered(1, 2500);
  EXPECT_THAT(Points(), ElementsAre("recorded 2500", "pending 1001", "over limit 1499"));
  uploader_->Upload();
  EXPECT_THAT(Points(), ElementsAre("recorded 2500", "in flight 1000", "over limit 1500"));
}

TEST_F(UploadStatusTest, CountsPointsThatAreTooOldInTheCycle) {
  Record("p");
  clock_.Advance(kMaxPointAge);
  EXPECT_THAT(Points(), ElementsAre("recorded 1", "pending 1"));
  uploader_->Upload();
  EXPECT_THAT(Points(), ElementsAre("recorded 1", "too old 1"));
  EXPECT_EQ(uploader_->Status().points.dropped_at, kNow + kMaxPointAge);
}

TEST_F(UploadStatusTest, ARejectedRequestDropsItsPoints) {
  Record("p");
  uploader_->Upload();
  Record("q");
  transport_->Answer(500);
  EXPECT_THAT(Points(), ElementsAre("recorded 2", "pending 1", "rejected 1"));
}

TEST_F(UploadStatusTest, AnExpiredTokenOrNoResponseLeavesThePointsPending) {
  Record("p");
  uploader_->Upload();
  transport_->Answer(401);
  EXPECT_THAT(Points(), ElementsAre("recorded 1", "pending 1"));
  oauth2_.HoldToken("token");
  uploader_->Upload();
  transport_->Fail("no route");
  EXPECT_THAT(Points(), ElementsAre("recorded 1", "pending 1"));
}

TEST_F(UploadStatusTest, APointSentTwiceIsAcceptedOnce) {
  Record("p");
  uploader_->Upload();
  uploader_->Upload();
  transport_->Answer(200);
  EXPECT_THAT(Points(), ElementsAre("recorded 1", "accepted 1"));
  transport_->Answer(200);
  EXPECT_THAT(Points(), ElementsAre("recorded 1", "accepted 1"));
}

TEST_F(UploadStatusTest, APointRemovedByAnotherResponseIsInFlightUntilItsOwn) {
  for (const int status : {200, 503, 401}) {
    Restart();
    oauth2_.HoldToken("token");
    Record("p");
    uploader_->Upload();
    Record("q");
    uploader_->Upload();
    transport_->Answer(200);
    EXPECT_THAT(Points(), ElementsAre("recorded 2", "accepted 1", "in flight 1"));
    transport_->Answer(status);
    if (status == 200)
      EXPECT_THAT(Points(), ElementsAre("recorded 2", "accepted 2"));
    else
      EXPECT_THAT(Points(), ElementsAre("recorded 2", "accepted 1", "pushed out 1"));
  }
}

TEST_F(UploadStatusTest, ALateAcceptanceUndoesARejectionAndATrim) {
  Record("p");
  uploader_->Upload();
  clock_.Advance(kMaxPointAge);
  Record("q");
  uploader_->Upload();
  EXPECT_THAT(Points(), ElementsAre("recorded 2", "in flight 2"));
  uploader_->Upload();
  // The second and third request contained only "q".
  const auto second = transport_->requests()[1].id;
  transport_->AnswerRequest(second, 500);
  EXPECT_THAT(Points(), ElementsAre("recorded 2", "in flight 2"));
  transport_->Answer(200);
  EXPECT_THAT(Points(), ElementsAre("recorded 2", "accepted 1", "in flight 1"));
  transport_->Answer(200);
  EXPECT_THAT(Points(), ElementsAre("recorded 2", "accepted 2"));
}

TEST_F(UploadStatusTest, CountsALogPushedOutByTheTwentyFirst) {
  RecordLogs(21);
  EXPECT_THAT(Logs(), ElementsAre("recorded 21", "pending 20", "pushed out 1"));
}

TEST_F(UploadStatusTest, ALogPushedOutInFlightCountsByItsResponse) {
  for (const int status : {200, 500}) {
    Restart();
    RecordLogs(20);
    uploader_->Upload();
    RecordLogs(1);
    EXPECT_THAT(Logs(), ElementsAre("recorded 21", "pending 20", "in flight 1"));
    transport_->Answer(status);
    if (status == 200)  // The next is in flight, and the one between was pushed out.
      EXPECT_THAT(Logs(), ElementsAre("recorded 21", "accepted 1", "pending 18", "in flight 1",
                                      "pushed out 1"));
    else
      EXPECT_THAT(Logs(), ElementsAre("recorded 21", "pending 20", "pushed out 1"));
  }
}

TEST_F(UploadStatusTest, ARejectedLogStaysPending) {
  RecordLogs(1);
  uploader_->Upload();
  transport_->Answer(500);
  EXPECT_THAT(Logs(), ElementsAre("recorded 1", "pending 1"));
  uploader_->Upload();
  transport_->Fail("no route");
  EXPECT_THAT(Logs(), ElementsAre("recorded 1", "pending 1"));
}

TEST_F(UploadStatusTest, ShowsAndAnnouncesTheEndOfARequest) {
  Record("p");
  RecordLogs(1);
  uploader_->Upload();
  int changes = 0;
  uploader_->SetChangedCallback([&changes] { ++changes; });
  EXPECT_TRUE(uploader_->Status().metrics.time.is_null());
  clock_.Advance(base::TimeDelta::FromSeconds(1));
  transport_->Answer(500);
  EXPECT_EQ(uploader_->Status().log.status, 500);
  EXPECT_EQ(uploader_->Status().log.time, kNow + base::TimeDelta::FromSeconds(1));
  EXPECT_EQ(changes, 1);
  transport_->Fail("no route");
  EXPECT_EQ(uploader_->Status().metrics.status, 0);
  EXPECT_EQ(uploader_->Status().metrics.error, "no route");
  EXPECT_EQ(changes, 2);
}

TEST_F(UploadStatusTest, ShowsTheLastRegistrationReplyOfLarder) {
  EXPECT_EQ(uploader_->Status().registration, Registration::kUnknown);
  uploader_->Upload();
  EXPECT_EQ(uploader_->Status().registration, Registration::kRegistered);
  device_.Register("");
  uploader_->Upload();
  EXPECT_EQ(uploader_->Status().registration, Registration::kUnregistered);
  device_.Unregister();
  uploader_->Upload();
  EXPECT_EQ(uploader_->Status().registration, Registration::kUnknown);
}

}  // namespace
}  // namespace varelnos::ap
