#include "ap/pelmor/testing/uploader_test_base.h"

namespace varelnos::ap {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;

constexpr char kStructuredUrl[] = "https://service/v1/dev/structuredLogs";
constexpr char kOfflineUrl[] = "https://service/v1/dev/writeLogs";

class LogChain : public UploaderTest {
 protected:
  // Structured records with the type URLs "first" to "last".
  void RecordLogs(int first, int last) {
    for (int number = first; number <= last; ++number)
      uploader_->RecordStructuredData(std::to_string(number), "");
  }
  // The type URLs sent since the last call, in order: "1 2 3".
  std::string SentTypes() {
    std::string types;
    while (!transport_->requests().empty()) {
      const std::string body = transport_->TakeRequest().body;
      const std::string key = "\"typeUrl\":\"";
      const size_t start = body.find(key) + key.size();
      types += (types.empty() ? "" : " ") + body.substr(start, body.find('"', start) - start);
    }
    return types;
  }
};

TEST_F(LogChain, PostsARecordOfUnknownKindEmptyToAnEmptyUrl) {
  UploaderPeer::RecordLog(uploader_.get(), static_cast<LogKind>(2), "type", "data");
  journal_.clear();
  uploader_->Upload();
  const auto request = transport_->TakeRequest();
  EXPECT_EQ(request.url, "");
  EXPECT_EQ(request.body, "{}");
  EXPECT_EQ(request.Header("Authorization"), "Bearer token");
  EXPECT_THAT(journal_, testing::Not(testing::Contains(HasSubstr("sample"))));
  transport_->Answer(200);
  uploader_->Upload();
  EXPECT_EQ(transport_->requests().size(), 0u) << "it was accepted";
}

TEST_F(LogChain, SendsAStructuredRecordWithoutProperties) {
  uploader_->RecordStructuredData("type.example/ap.Event", "\xfb\xff\x01");
  uploader_->Upload();
  const auto request = transport_->TakeRequest();
  EXPECT_EQ(request.url, kStructuredUrl);
  EXPECT_EQ(request.body, R"({"typeUrl":"type.example/ap.Event","value":"-_8B"})");
  EXPECT_THAT(request.headers, testing::Contains(Pair("Authorization", "Bearer token")));
}

TEST_F(LogChain, SendsAnOfflineRecordWithTheReleaseAndItsTime) {
  clock_.Advance(base::TimeDelta::FromSeconds(400));
  uploader_->RecordOfflineData("type.example/ap.Event", "\xfb\xff\x01");
  clock_.Advance(base::TimeDelta::FromSeconds(60));
  uploader_->Upload();
  const auto request = transport_->TakeRequest();
  EXPECT_EQ(request.url, kOfflineUrl);
  EXPECT_EQ(request.body, R"({"deviceTimestamp":{"seconds":1700000400},)"
                          R"("properties":{"hardwareId":"board-a","softwareVersion":"9000.1.0",)"
                          R"("updateChannel":"unknown"},)"
                          R"("writeLog":[{"typeUrl":"type.example/ap.Event","value":"-_8B"}]})");
}

TEST_F(LogChain, SendsEmptyDataAsAnEmptyString) {
  uploader_->RecordStructuredData("type", "");
  uploader_->Upload();
  EXPECT_EQ(transport_->TakeRequest().body, R"({"typeUrl":"type","value":""})");
}

TEST_F(LogChain, WithAnEmptyReleaseFileAllPropertiesAreUnknown) {
  root_.Put("/etc/lsb-release", "");
  Restart();
  uploader_->RecordOfflineData("type", "");
  uploader_->Upload();
  EXPECT_THAT(transport_->TakeRequest().body,
              HasSubstr(R"("hardwareId":"unknown","softwareVersion":"unknown",)"
                        R"("updateChannel":"unknown")"));
}

TEST_F(LogChain, SendsEachRecordAfterTheResponseToTheOneBefore) {
  RecordLogs(1, 3);
  uploader_->Upload();
  EXPECT_EQ(SentTypes(), "1");
  transport_->Answer(200);
  EXPECT_EQ(SentTypes(), "2");
  transport_->Answer(204);
  EXPECT_EQ(SentTypes(), "3");
  transport_->Answer(299);
  EXPECT_EQ(SentTypes(), "");
  EXPECT_EQ(transport_->outstanding(), 0u);
}

TEST_F(LogChain, ACycleDuringASendStartsNoOtherSend) {
  RecordLogs(1, 2);
  uploader_->Upload();
  uploader_->Upload();
  EXPECT_EQ(SentTypes(), "1");
}

TEST_F(LogChain, ChecksRegistrationFirstAndForEachRecord) {
  RecordLogs(1, 2);
  uploader_->Upload();
  journal_.clear();
  transport_->Answer(200);
  EXPECT_THAT(journal_, ElementsAre("sample AccessPoint.PelmorStructuredLog.ResponseStatusCode 200",
                                    "validate 200", "registered?", "token?",
                                    "sample AccessPoint.PelmorStructuredLog.RequestWireSize 0",
                                    "token?", std::string("post ") + kStructuredUrl));
  // Also while a record is in flight or the queue is empty.
  journal_.clear();
  uploader_->Upload();
  EXPECT_THAT(journal_, ElementsAre("registered?", "token?", "clock?", "registered?"));
  transport_->Answer(200);
  journal_.clear();
  uploader_->Upload();
  EXPECT_THAT(journal_, ElementsAre("registered?", "token?", "clock?", "registered?"));
}

TEST_F(LogChain, StopsWhenTheDeviceIsNoLongerRegistered) {
  RecordLogs(1, 2);
  uploader_->Upload();
  device_.Unregister();
  transport_->Answer(200);
  EXPECT_EQ(SentTypes(), "1");
  device_.Register("other");
  uploader_->Upload();
  EXPECT_EQ(transport_->requests().back().url, "https://service/v1/other/structuredLogs");
  EXPECT_EQ(SentTypes(), "2");
}

TEST_F(LogChain, StopsWithoutAToken) {
  RecordLogs(1, 2);
  uploader_->Upload();
  oauth2_.LoseToken();
  transport_->Answer(200);
  EXPECT_EQ(SentTypes(), "1");
  oauth2_.HoldToken("new token");
  uploader_->Upload();
  EXPECT_EQ(SentTypes(), "2");
}

TEST_F(LogChain, ARejectedRecordStaysInFrontUntilTheNextCycle) {
  RecordLogs(1, 3);
  uploader_->Upload();
  EXPECT_EQ(SentTypes(), "1");
  transport_->Answer(500, "the reason");
  EXPECT_THAT(log_.lines(), ElementsAre("WARNING Error uploading log: the reason"));
  EXPECT_EQ(SentTypes(), "");
  uploader_->Upload();
  EXPECT_EQ(SentTypes(), "1");
}

TEST_F(LogChain, AnExpiredTokenKeepsTheRecord) {
  RecordLogs(1, 1);
  uploader_->Upload();
  EXPECT_EQ(SentTypes(), "1");
  journal_.clear();
  transport_->Answer(401, "expired");
  EXPECT_THAT(journal_, ElementsAre("sample AccessPoint.PelmorStructuredLog.ResponseStatusCode 401",
                                    "validate 401"));
  EXPECT_THAT(log_.lines(), ElementsAre("WARNING Error uploading log: expired"));
  uploader_->Upload();
  EXPECT_EQ(SentTypes(), "");
  oauth2_.HoldToken("new token");
  uploader_->Upload();
  EXPECT_EQ(SentTypes(), "1");
}

TEST_F(LogChain, ATransportErrorKeepsTheRecordAndSendsNoSample) {
  RecordLogs(1, 2);
  uploader_->Upload();
  SentTypes();
  journal_.clear();
  transport_->Fail("connection refused");
  EXPECT_THAT(log_.lines(), ElementsAre("ERROR Error uploading log: connection refused"));
  EXPECT_THAT(journal_, IsEmpty());
  uploader_->Upload();
  EXPECT_EQ(SentTypes(), "1");
}

TEST_F(LogChain, TheTwentyFirstRecordPushesTheOldestOut) {
  RecordLogs(1, 21);
  uploader_->Upload();
  for (size_t i = 0; i < kMaxLogRecords; ++i) transport_->Answer(200);
  EXPECT_EQ(SentTypes(), "2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21");
  EXPECT_EQ(transport_->outstanding(), 0u);
}

TEST_F(LogChain, TheTwentiethRecordPushesNothingOut) {
  RecordLogs(1, 20);
  uploader_->Upload();
  EXPECT_EQ(SentTypes(), "1");
}

TEST_F(LogChain, SuccessRemovesTheFrontRecordEvenIfAnotherWasSent) {
  RecordLogs(1, 20);
  uploader_->Upload();
  RecordLogs(21, 21);  // Pushes out record 1, which is in flight.
  transport_->Answer(200);
  EXPECT_EQ(SentTypes(), "1 3");  // Record 2 was removed unsent.
}

TEST_F(LogChain, OnlyStructuredRecordsReportTheirWireSizeButAllReportTheirStatus) {
  uploader_->RecordOfflineData("type", "abc");
  uploader_->RecordStructuredData("type", "abc");
  journal_.clear();
  uploader_->Upload();
  transport_->Answer(200);
  transport_->Answer(200);
  Journal samples;
  for (const std::string& entry : journal_)
    if (entry.starts_with("sample ")) samples.push_back(entry);
  EXPECT_THAT(samples,
              ElementsAre("sample AccessPoint.PelmorStructuredLog.ResponseStatusCode 200",
                          "sample AccessPoint.PelmorStructuredLog.RequestWireSize 4",
                          "sample AccessPoint.PelmorStructuredLog.ResponseStatusCode 200"));
}

}  // namespace
}  // namespace varelnos::ap
