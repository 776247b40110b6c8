#include "ap/pelmor/testing/uploader_test_base.h"

namespace varelnos::ap {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class RecordStore : public UploaderTest {
 protected:
  PointsByName Taken() {
    uploader_->TakePointsForUpload();
    return uploader_->GroupPointsByName();
  }
  void Age(base::TimeDelta age) { clock_.Advance(age); }
};

TEST_F(RecordStore, KeepsAPointUnchangedWithTheTimeOfRecording) {
  uploader_->RecordMetric("ap/clients", {{"band", "5g"}, {"radio", "0"}}, int32_t{12});
  clock_.Advance(base::TimeDelta::FromSeconds(5));
  const PointsByName groups = Taken();
  ASSERT_EQ(groups.size(), 1u);
  ASSERT_EQ(groups.at("ap/clients").size(), 1u);
  const MetricPoint& point = *groups.at("ap/clients").front();
  EXPECT_EQ(point.name, "ap/clients");
  EXPECT_EQ(point.labels, (std::map<std::string, std::string>{{"band", "5g"}, {"radio", "0"}}));
  EXPECT_EQ(point.value.GetAsInteger(), 12);
  EXPECT_EQ(point.timestamp, kNow);
}

TEST_F(RecordStore, DoesNotGroupPendingPoints) {
  Record("a");
  EXPECT_THAT(uploader_->GroupPointsByName(), IsEmpty());
  EXPECT_EQ(Taken().size(), 1u);
}

TEST_F(RecordStore, DropsARecordSilentlyWithoutAnAccessToken) {
  oauth2_.LoseToken();
  Record("a");
  uploader_->RecordStructuredData("type", "data");
  EXPECT_THAT(journal_, ElementsAre("token?", "token?"));
  oauth2_.HoldToken("token");
  uploader_->Upload();
  EXPECT_THAT(transport_->requests(), IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(RecordStore, DropsARecordSilentlyBeforeNetworkTime) {
  clock_client_.ForgetNetworkTime();
  Record("a");
  uploader_->RecordOfflineData("type", "data");
  clock_client_.AcquireNetworkTime();
  uploader_->Upload();
  EXPECT_THAT(transport_->requests(), IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(RecordStore, RecordsWithoutRegistration) {
  device_.Unregister();
  Record("a");
  EXPECT_THAT(journal_, ElementsAre("token?", "clock?"));
  EXPECT_EQ(Taken().size(), 1u);
}

TEST_F(RecordStore, IgnoresTheValueOfADroppedRecord) {
  oauth2_.LoseToken();
  Record("a", 0.5f);
  oauth2_.HoldToken("token");
  EXPECT_THAT(Taken(), IsEmpty());
}

TEST_F(RecordStore, RecordingAValueThatCannotBeEncodedIsFatal) {
  EXPECT_DEATH(Record("a", 0.5f), "Unknown type: float");
}

TEST_F(RecordStore, GroupsNamesInByteOrderAndKeepsTheOrderOfPoints) {
  const char* const kNames[] = {"ap/radio/utilization", "ap/clients", "ap/radio", "\xc3\xa4", "Z"};
  for (const char* name : kNames) Record(name);
  uploader_->RecordMetric("ap/radio", {{"band", "2g"}}, 2);
  const PointsByName groups = Taken();
  std::vector<std::string> names;
  names.reserve(groups.size());
  for (const auto& [name, points] : groups) names.push_back(name);
  EXPECT_THAT(names,
              ElementsAre("Z", "ap/clients", "ap/radio", "ap/radio/utilization", "\xc3\xa4"));
  ASSERT_EQ(groups.at("ap/radio").size(), 2u);
  EXPECT_THAT(groups.at("ap/radio")[0]->labels, IsEmpty());
  EXPECT_EQ(groups.at("ap/radio")[1]->labels.at("band"), "2g");
}

TEST_F(RecordStore, DropsAPointOfExactlyThirtyMinutes) {
  Record("old");
  Age(base::TimeDelta::FromMicroseconds(1));
  Record("young");
  clock_.StepTo(kNow + kMaxPointAge);
  const PointsByName groups = Taken();
  EXPECT_EQ(groups.count("old"), 0u);
  EXPECT_EQ(groups.count("young"), 1u);
}

TEST_F(RecordStore, KeepsAnOldPointBehindAYoungerOne) {
  Record("first");
  clock_.StepTo(kNow - base::TimeDelta::FromMinutes(60));
  Record("older");
  clock_.StepTo(kNow);
  const PointsByName groups = Taken();
  EXPECT_EQ(groups.count("first"), 1u);
  EXPECT_EQ(groups.count("older"), 1u);
}

TEST_F(RecordStore, AYoungPointProtectsOlderOnesEvenIfItIsOverTheLimit) {
  Record("young");
  clock_.StepTo(kNow - base::TimeDelta::FromMinutes(60));
  RecordNumbered(1, 1500);
  clock_.StepTo(kNow);
  const PointsByName groups = Taken();
  EXPECT_EQ(groups.count("young"), 0u);
  EXPECT_EQ(groups.at("p").size(), kMaxUploadPoints);
}

TEST_F(RecordStore, DropsAllPointsIfAllAreOldAndOverTheLimit) {
  RecordNumbered(1, 1500);
  Age(kMaxPointAge);
  EXPECT_THAT(Taken(), IsEmpty());
}

TEST_F(RecordStore, KeepsTheNewestThousandPoints) {
  RecordNumbered(1, 1500);
  const PointsByName groups = Taken();
  ASSERT_EQ(groups.at("p").size(), kMaxUploadPoints);
  EXPECT_EQ(groups.at("p").front()->value.GetAsInteger(), 501);
  EXPECT_EQ(groups.at("p").back()->value.GetAsInteger(), 1500);
}

TEST_F(RecordStore, KeepsExactlyAThousandPoints) {
  RecordNumbered(1, 1000);
  EXPECT_EQ(Taken().at("p").size(), 1000u);
}

TEST_F(RecordStore, UnsentPointsCountTowardsTheLimitAndAreOldest) {
  RecordNumbered(1, 600);
  Taken();
  RecordNumbered(601, 1200);
  const PointsByName groups = Taken();
  ASSERT_EQ(groups.at("p").size(), kMaxUploadPoints);
  EXPECT_EQ(groups.at("p").front()->value.GetAsInteger(), 201);
}

TEST_F(RecordStore, ClearingKeepsPendingPoints) {
  Record("sent");
  Taken();
  Record("pending");
  uploader_->ClearUploadPoints();
  EXPECT_THAT(uploader_->GroupPointsByName(), IsEmpty());
  EXPECT_EQ(Taken().count("pending"), 1u);
}

TEST_F(RecordStore, RecordingALogStartsNoUpload) {
  uploader_->RecordStructuredData("type", "data");
  uploader_->RecordOfflineData("type", "data");
  EXPECT_THAT(transport_->requests(), IsEmpty());
}

}  // namespace
}  // namespace varelnos::ap
