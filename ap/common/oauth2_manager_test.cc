#include "ap/common/oauth2_manager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "base/testing/fake_clock.h"
#include "base/testing/log_capture.h"
#include "base/testing/scoped_root.h"
#include "kestle/http/testing/scripted_transport.h"

namespace varelnos::ap {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kTokenFile[] = "/var/lib/ap/pelmor/refresh_token";
constexpr char kRefreshForm[] =
    "refresh_token=refresh-1&client_id=id&client_secret=s%26cret&grant_type=refresh_token";
constexpr char kBothTokens[] = R"({"access_token":"access-2","refresh_token":"refresh-2"})";

class OAuth2ManagerTest : public testing::Test {
 protected:
  OAuth2ManagerTest() { root_.MakeFolder("/var/lib/ap/pelmor"); }

  void Start() {
    transport_ = std::make_shared<kestle::http::ScriptedTransport>();
    manager_ = std::make_unique<OAuth2Manager>("id", "s&cret", "scope one", kTokenFile, transport_);
  }
  // A manager with a refresh token on disk, whose first refresh is outstanding.
  void StartProvisioned() {
    root_.Put(kTokenFile, "refresh-1");
    Start();
    log_.Clear();
  }
  // The same, holding an access token.
  void StartReady() {
    StartProvisioned();
    transport_->Answer(200, R"({"access_token":"access-1"})");
    transport_->TakeRequest();
    log_.Clear();
  }
  void Exchange() {
    manager_->ExchangeAuthorizationCode("code/1", [this](bool success) { outcome_ = success; });
  }
  bool Rejects(int status) {
    return !manager_->ValidateResponse(kestle::http::Response(status, ""));
  }
  void Advance(base::TimeDelta delta) { clock_.Advance(delta); }

  base::ScopedRoot root_;
  base::FakeClock clock_{base::Time::FromTimeT(1700000000)};
  base::LogCapture log_;
  std::shared_ptr<kestle::http::ScriptedTransport> transport_;
  std::unique_ptr<OAuth2Manager> manager_;
  std::optional<bool> outcome_;  // Of the exchange; absent while it is outstanding.
};

TEST_F(OAuth2ManagerTest, WithoutAFileItIsUnprovisionedAndAsksNothing) {
  Start();
  EXPECT_FALSE(manager_->HasRefreshToken());
  EXPECT_EQ(manager_->GetAccessToken(), "");
  EXPECT_THAT(transport_->requests(), IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(OAuth2ManagerTest, AnEmptyFileIsAsGoodAsNone) {
  root_.Put(kTokenFile, "");
  Start();
  EXPECT_FALSE(manager_->HasRefreshToken());
  EXPECT_THAT(transport_->requests(), IsEmpty());
}

TEST_F(OAuth2ManagerTest, OverAFileItRefreshesAtOnce) {
  root_.Put(kTokenFile, "refresh-1");
  Start();
  EXPECT_TRUE(manager_->HasRefreshToken());
  const auto request = transport_->TakeRequest();
  EXPECT_EQ(request.url, kTokenEndpointUrl);
  EXPECT_EQ(request.body, kRefreshForm);
  EXPECT_EQ(request.Header("Content-Type"), "application/x-www-form-urlencoded");
  EXPECT_THAT(log_.lines(), ElementsAre("INFO Refreshing access token."));
}

TEST_F(OAuth2ManagerTest, TheTokenIsReadVerbatim) {
  root_.Put(kTokenFile, " refresh\n");
  Start();
  EXPECT_TRUE(transport_->TakeRequest().body.starts_with("refresh_token=%20refresh%0A&"));
}

TEST_F(OAuth2ManagerTest, ARefreshFillsTheAccessToken) {
  StartProvisioned();
  EXPECT_EQ(manager_->GetAccessToken(), "");
  transport_->Answer(200, R"({"access_token":"access-1","expires_in":1})");
  EXPECT_EQ(manager_->GetAccessToken(), "access-1");
  EXPECT_THAT(log_.lines(), ElementsAre("INFO Successfully fetched access token: 200"));
  // The expiry that the provider announces is nobody's business.
  Advance(base::TimeDelta::FromMinutes(600));
  EXPECT_EQ(manager_->GetAccessToken(), "access-1");
  EXPECT_EQ(transport_->requests().size(), 1u);
}

TEST_F(OAuth2ManagerTest, AtMostOneRefreshIsStartedIn30Seconds) {
  StartProvisioned();
  for (int i = 0; i < 3; ++i) manager_->GetAccessToken();
  Advance(base::TimeDelta::FromMicroseconds(29'999'999));
  manager_->GetAccessToken();
  EXPECT_TRUE(Rejects(401));
  EXPECT_EQ(transport_->requests().size(), 1u);
  Advance(base::TimeDelta::FromMicroseconds(1));
  manager_->GetAccessToken();
  manager_->GetAccessToken();
  // The first is still outstanding: that is nobody's concern.
  EXPECT_EQ(transport_->outstanding(), 2u);
}

TEST_F(OAuth2ManagerTest, AStepOfTheWallClockDoesNotHoldBackARefresh) {
  StartProvisioned();
  clock_.StepTo(base::Time::FromTimeT(1000));
  Advance(base::TimeDelta::FromSeconds(30));
  manager_->GetAccessToken();
  EXPECT_EQ(transport_->requests().size(), 2u);
}

TEST_F(OAuth2ManagerTest, EveryUnusableRefreshAnswerSendsTheDeviceBackToBeProvisioned) {
  const struct {
    int status;
    const char* body;
    std::vector<std::string> log;
  } kCases[] = {
      {400,
       R"({"error":"invalid_grant"})",
       {"INFO Successfully fetched access token: 400",
        "ERROR Error parsing oauth2 response: invalid_grant - 400"}},
      {400,
       R"({"access_token":"x"})",
       {"INFO Successfully fetched access token: 400",
        "ERROR Error parsing oauth2 response: unexpected_response - 400"}},
      {400,
       R"({"error":17})",
       {"INFO Successfully fetched access token: 400",
        "ERROR Error parsing oauth2 response: unexpected_response - 400"}},
      {500, "<html>", {"INFO Successfully fetched access token: 500"}},
      {503, "", {"INFO Successfully fetched access token: 503"}},
      {200, "not json", {"INFO Successfully fetched access token: 200"}},
      {200, "[]", {"INFO Successfully fetched access token: 200"}},
      {200, "{}", {"INFO Successfully fetched access token: 200"}},
      {200, R"({"access_token":""})", {"INFO Successfully fetched access token: 200"}},
      {200, R"({"access_token":5})", {"INFO Successfully fetched access token: 200"}},
      {302, "", {"INFO Successfully fetched access token: 302"}},
  };
  for (const auto& test : kCases) {
    StartProvisioned();
    transport_->Answer(test.status, test.body);
    EXPECT_FALSE(manager_->HasRefreshToken()) << test.body;
    EXPECT_EQ(manager_->GetAccessToken(), "") << test.body;
    EXPECT_FALSE(root_.Has(kTokenFile)) << test.body;
    EXPECT_EQ(log_.lines(), test.log) << test.body;
  }
}

TEST_F(OAuth2ManagerTest, AFileThatCannotBeDeletedIsReported) {
  StartProvisioned();
  root_.Remove(kTokenFile);
  root_.MakeFolder(kTokenFile);
  transport_->Answer(500, "");
  EXPECT_THAT(log_.lines(), ElementsAre("INFO Successfully fetched access token: 500",
                                        "ERROR Unable to delete saved refresh token"));
  EXPECT_FALSE(manager_->HasRefreshToken());
}

TEST_F(OAuth2ManagerTest, ATransportErrorInARefreshKeepsTheRefreshToken) {
  StartProvisioned();
  transport_->Fail("no route to host");
  EXPECT_THAT(log_.lines(), ElementsAre("WARNING Error fetching access token: no route to host"));
  EXPECT_TRUE(manager_->HasRefreshToken());
  EXPECT_EQ(root_.Get(kTokenFile), "refresh-1");
  Advance(base::TimeDelta::FromSeconds(30));
  manager_->GetAccessToken();
  EXPECT_EQ(transport_->requests().size(), 2u);
}

TEST_F(OAuth2ManagerTest, ALateTransportErrorClearsTheAccessTokenOfAnEarlierRefresh) {
  StartProvisioned();
  Advance(base::TimeDelta::FromSeconds(30));
  manager_->GetAccessToken();
  transport_->Answer(200, R"({"access_token":"access-1"})");
  EXPECT_EQ(manager_->GetAccessToken(), "access-1");
  transport_->Fail("reset");
  EXPECT_EQ(manager_->GetAccessToken(), "");
}

TEST_F(OAuth2ManagerTest, ALateUnusableAnswerClearsTheTokensOfAnEarlierRefreshToo) {
  StartProvisioned();
  Advance(base::TimeDelta::FromSeconds(30));
  manager_->GetAccessToken();
  transport_->Answer(200, R"({"access_token":"access-1"})");
  transport_->Answer(500);
  EXPECT_EQ(manager_->GetAccessToken(), "");
  EXPECT_FALSE(manager_->HasRefreshToken());
  EXPECT_FALSE(root_.Has(kTokenFile));
}

TEST_F(OAuth2ManagerTest, Only401SaysThatTheTokenWasRejected) {
  StartReady();
  for (const int status : {200, 204, 302, 400, 402, 403, 500}) EXPECT_FALSE(Rejects(status));
  EXPECT_EQ(manager_->GetAccessToken(), "access-1");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(OAuth2ManagerTest, ARejectedTokenIsDroppedAndRefreshed) {
  StartReady();
  Advance(base::TimeDelta::FromSeconds(30));
  EXPECT_TRUE(Rejects(401));
  EXPECT_THAT(log_.lines(),
              ElementsAre("INFO Access token invalidated", "INFO Refreshing access token."));
  EXPECT_EQ(transport_->TakeRequest().body, kRefreshForm);
  EXPECT_EQ(manager_->GetAccessToken(), "");
  EXPECT_TRUE(manager_->HasRefreshToken());
}

TEST_F(OAuth2ManagerTest, ARejectedTokenWithin30SecondsIsDroppedButNotYetRefreshed) {
  StartReady();
  EXPECT_TRUE(Rejects(401));
  EXPECT_THAT(log_.lines(), ElementsAre("INFO Access token invalidated"));
  EXPECT_THAT(transport_->requests(), IsEmpty());
}

TEST_F(OAuth2ManagerTest, AnExchangePostsTheCodeAndForgetsTheOldTokensButNotTheFile) {
  StartReady();
  Exchange();
  const auto request = transport_->TakeRequest();
  EXPECT_EQ(request.url, kTokenEndpointUrl);
  EXPECT_EQ(request.body,
            "code=code%2F1&client_id=id&client_secret=s%26cret&redirect_uri=oob&"
            "scope=scope%20one&grant_type=authorization_code");
  EXPECT_FALSE(manager_->HasRefreshToken());
  EXPECT_EQ(manager_->GetAccessToken(), "");
  EXPECT_EQ(root_.Get(kTokenFile), "refresh-1");
  EXPECT_THAT(log_.lines(), ElementsAre("INFO Fetching refresh token"));
}

TEST_F(OAuth2ManagerTest, AnExchangeWithBothTokensMakesItReady) {
  Start();
  Exchange();
  transport_->Answer(200, kBothTokens);
  EXPECT_EQ(outcome_, true);
  EXPECT_TRUE(manager_->HasRefreshToken());
  EXPECT_EQ(manager_->GetAccessToken(), "access-2");
  EXPECT_EQ(root_.Get(kTokenFile), "refresh-2");
  EXPECT_THAT(log_.lines(), ElementsAre("INFO Fetching refresh token",
                                        "INFO Successfully fetched refresh token: 200"));
}

TEST_F(OAuth2ManagerTest, TheCallbackComesBeforeTheTokenIsOnDisk) {
  Start();
  bool on_disk = true;
  manager_->ExchangeAuthorizationCode("code",
                                      [&](bool /*success*/) { on_disk = root_.Has(kTokenFile); });
  transport_->Answer(200, kBothTokens);
  EXPECT_FALSE(on_disk);
  EXPECT_TRUE(root_.Has(kTokenFile));
}

TEST_F(OAuth2ManagerTest, ATokenThatCannotBeWrittenGoesUnnoticed) {
  Start();
  root_.Remove("/var/lib/ap");
  Exchange();
  transport_->Answer(200, kBothTokens);
  EXPECT_EQ(outcome_, true);
  EXPECT_EQ(manager_->GetAccessToken(), "access-2");
}

TEST_F(OAuth2ManagerTest, EveryUnusableExchangeAnswerFails) {
  const struct {
    int status;
    const char* body;
    const char* log;
  } kCases[] = {
      {400, R"({"error":"invalid_grant"})",
       "ERROR Error parsing oauth2 response: invalid_grant - 400"},
      {403, "{}", "ERROR Error parsing oauth2 response: unexpected_response - 403"},
      {500, "<html>", nullptr},
      {200, "", nullptr},
      {200, R"({"refresh_token":"refresh-2"})", nullptr},
      {200, R"({"access_token":"","refresh_token":"refresh-2"})", nullptr},
  };
  for (const auto& test : kCases) {
    Start();
    Exchange();
    log_.Clear();
    transport_->Answer(test.status, test.body);
    EXPECT_EQ(outcome_, false) << test.body;
    std::vector<std::string> lines = {"INFO Successfully fetched refresh token: " +
                                      std::to_string(test.status)};
    if (test.log) lines.emplace_back(test.log);
    lines.emplace_back("ERROR Unable to fetch refresh token");
    EXPECT_EQ(log_.lines(), lines) << test.body;
    EXPECT_EQ(manager_->GetAccessToken(), "") << test.body;
    EXPECT_FALSE(root_.Has(kTokenFile)) << test.body;
  }
}

TEST_F(OAuth2ManagerTest, AnExchangeWithTheAccessTokenAloneFailsAndLeavesThatUsable) {
  StartReady();
  Exchange();
  transport_->Answer(200, R"({"access_token":"access-2"})");
  EXPECT_EQ(outcome_, false);
  EXPECT_EQ(manager_->GetAccessToken(), "access-2");
  EXPECT_FALSE(manager_->HasRefreshToken());
  EXPECT_EQ(root_.Get(kTokenFile), "refresh-1");
}

TEST_F(OAuth2ManagerTest, AnExchangeWithAnEmptyRefreshTokenFails) {
  Start();
  Exchange();
  transport_->Answer(200, R"({"access_token":"access-2","refresh_token":""})");
  EXPECT_EQ(outcome_, false);
  EXPECT_EQ(manager_->GetAccessToken(), "access-2");
  EXPECT_FALSE(root_.Has(kTokenFile));
}

TEST_F(OAuth2ManagerTest, ATransportErrorInAnExchangeFailsIt) {
  Start();
  Exchange();
  log_.Clear();
  transport_->Fail("no route to host");
  EXPECT_EQ(outcome_, false);
  EXPECT_THAT(log_.lines(), ElementsAre("WARNING Error fetching refresh token: no route to host"));
}

TEST_F(OAuth2ManagerTest, ASecondExchangeIsAnsweredFalseAtOnceAndLeavesTheFirstAlone) {
  Start();
  Exchange();
  log_.Clear();
  std::optional<bool> second;
  manager_->ExchangeAuthorizationCode("code 2", [&](bool success) { second = success; });
  EXPECT_EQ(second, false);
  EXPECT_EQ(outcome_, std::nullopt);
  EXPECT_EQ(transport_->requests().size(), 1u);
  EXPECT_THAT(log_.lines(),
              ElementsAre("WARNING Request already outstanding: rejecting new request"));
  transport_->Answer(200, kBothTokens);
  EXPECT_EQ(outcome_, true);
}

TEST_F(OAuth2ManagerTest, AnExchangeIsOutstandingUntilItsCallbackIsOver) {
  Start();
  std::optional<bool> second;
  manager_->ExchangeAuthorizationCode("code 1", [&](bool) {
    manager_->ExchangeAuthorizationCode("code 2", [&](bool success) { second = success; });
  });
  transport_->Answer(200, kBothTokens);
  EXPECT_EQ(second, false);
  EXPECT_EQ(root_.Get(kTokenFile), "refresh-2");
}

TEST_F(OAuth2ManagerTest, AnExchangeThatHasNothingLeftToSaveStopsTheProcess) {
  StartReady();
  // While the cloud is told of the success, a refresh that is refused takes the new tokens away.
  manager_->ExchangeAuthorizationCode("code/1", [this](bool) { transport_->Answer(500, ""); });
  Advance(base::TimeDelta::FromSeconds(30));
  EXPECT_TRUE(Rejects(401));
  EXPECT_DEATH(transport_->Answer(200, kBothTokens),
               "Check failed: base::WriteFile\\(refresh_token_file_, refresh_token_.data\\(\\), "
               "refresh_token_.length\\(\\)\\): Unable to save refresh token\n");
}

TEST_F(OAuth2ManagerTest, AfterAnExchangeANewOneIsAccepted) {
  Start();
  for (const int status : {200, 500}) {
    Exchange();
    transport_->Answer(status, kBothTokens);
    outcome_.reset();
  }
  Exchange();
  EXPECT_EQ(outcome_, std::nullopt);
  EXPECT_EQ(transport_->outstanding(), 1u);
}

TEST_F(OAuth2ManagerTest, AnswersAfterItsEndAreDropped) {
  StartProvisioned();
  Exchange();
  manager_.reset();
  transport_->Answer(200, kBothTokens);
  transport_->Answer(200, kBothTokens);
  EXPECT_EQ(outcome_, std::nullopt);
  EXPECT_EQ(root_.Get(kTokenFile), "refresh-1");
}

TEST_F(OAuth2ManagerTest, NoSecretIsEverLogged) {
  StartProvisioned();
  transport_->Answer(200, R"({"access_token":"access-1"})");
  Rejects(401);
  Exchange();
  transport_->Answer(200, kBothTokens);
  Exchange();
  transport_->Answer(400, R"({"error":"invalid_grant","access_token":"access-3"})");
  for (const std::string& line : log_.lines())
    for (const char* const secret : {"refresh-", "access-", "code/1", "s&cret"})
      EXPECT_EQ(line.find(secret), std::string::npos) << line;
}

}  // namespace
}  // namespace varelnos::ap
