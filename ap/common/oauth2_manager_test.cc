#include "ap/common/testing/oauth2_manager_test_base.h"

namespace varelnos::ap {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(OAuth2ManagerTest, WithoutAFileItIsUnprovisionedAndSendsNothing) {
  Start();
  EXPECT_FALSE(manager_->HasRefreshToken());
  EXPECT_EQ(manager_->GetAccessToken(), "");
  EXPECT_THAT(transport_->requests(), IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(OAuth2ManagerTest, AnEmptyFileIsLikeNone) {
  root_.Put(kTokenFile, "");
  Start();
  EXPECT_FALSE(manager_->HasRefreshToken());
  EXPECT_THAT(transport_->requests(), IsEmpty());
}

TEST_F(OAuth2ManagerTest, WithAFileItRefreshesImmediately) {
  root_.Put(kTokenFile, "refresh-1");
  Start();
  EXPECT_TRUE(manager_->HasRefreshToken());
  const auto request = transport_->TakeRequest();
  EXPECT_EQ(request.url, kTokenEndpointUrl);
  EXPECT_EQ(request.body, kRefreshForm);
  EXPECT_EQ(request.Header("Content-Type"), "application/x-www-form-urlencoded");
  EXPECT_THAT(log_.lines(), ElementsAre("INFO Refreshing access token."));
}

TEST_F(OAuth2ManagerTest, ReadsTheTokenVerbatim) {
  root_.Put(kTokenFile, " refresh\n");
  Start();
  EXPECT_TRUE(transport_->TakeRequest().body.starts_with("refresh_token=%20refresh%0A&"));
}

TEST_F(OAuth2ManagerTest, ARefreshSetsTheAccessToken) {
  StartProvisioned();
  EXPECT_EQ(manager_->GetAccessToken(), "");
  transport_->Answer(200, R"({"access_token":"access-1","expires_in":1})");
  EXPECT_EQ(manager_->GetAccessToken(), "access-1");
  EXPECT_THAT(log_.lines(), ElementsAre("INFO Successfully fetched access token: 200"));
  // "expires_in" has no effect.
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
  // Although the first one is still outstanding.
  EXPECT_EQ(transport_->outstanding(), 2u);
}

TEST_F(OAuth2ManagerTest, AStepOfTheWallClockDoesNotDelayARefresh) {
  StartProvisioned();
  clock_.StepTo(base::Time::FromTimeT(1000));
  Advance(base::TimeDelta::FromSeconds(30));
  manager_->GetAccessToken();
  EXPECT_EQ(transport_->requests().size(), 2u);
}

TEST_F(OAuth2ManagerTest, EveryUnusableRefreshResponseEndsTheCredentials) {
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

TEST_F(OAuth2ManagerTest, AFailureToDeleteTheFileIsLogged) {
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

TEST_F(OAuth2ManagerTest, ALateTransportErrorWipesTheAccessTokenOfAnEarlierRefresh) {
  StartProvisioned();
  Advance(base::TimeDelta::FromSeconds(30));
  manager_->GetAccessToken();
  transport_->Answer(200, R"({"access_token":"access-1"})");
  EXPECT_EQ(manager_->GetAccessToken(), "access-1");
  transport_->Fail("reset");
  EXPECT_EQ(manager_->GetAccessToken(), "");
}

TEST_F(OAuth2ManagerTest, ALateUnusableResponseWipesTheTokensOfAnEarlierRefresh) {
  StartProvisioned();
  Advance(base::TimeDelta::FromSeconds(30));
  manager_->GetAccessToken();
  transport_->Answer(200, R"({"access_token":"access-1"})");
  transport_->Answer(500);
  EXPECT_EQ(manager_->GetAccessToken(), "");
  EXPECT_FALSE(manager_->HasRefreshToken());
  EXPECT_FALSE(root_.Has(kTokenFile));
}

TEST_F(OAuth2ManagerTest, OnlyStatus401RejectsTheToken) {
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

TEST_F(OAuth2ManagerTest, ResponsesAfterItsDestructionAreIgnored) {
  StartProvisioned();
  Exchange();
  manager_.reset();
  transport_->Answer(200, kBothTokens);
  transport_->Answer(200, kBothTokens);
  EXPECT_EQ(outcome_, std::nullopt);
  EXPECT_EQ(root_.Get(kTokenFile), "refresh-1");
}

TEST_F(OAuth2ManagerTest, TheLastResponseShowsOnlyKnownErrorsOfTheTokenEndpoint) {
  const struct {
    int status;
    const char* body;
    const char* error;
  } kCases[] = {
      {200, kBothTokens, ""},
      {200, R"({"access_token":"","error":"invalid_grant"})", "no token"},
      {200, "no JSON", "no JSON object"},
      {500, "out of order", "no JSON object"},
      {400, R"({"error":"invalid_grant"})", "invalid_grant"},
      {401, R"({"error":"invalid_client"})", "invalid_client"},
      {400, "{}", "unexpected_response"},
      // The text may be a token.
      {400, R"({"error":"refresh-1"})", "an error that RFC 6749 does not name"},
  };
  for (const auto& test : kCases) {
    for (const bool exchange : {false, true}) {
      StartProvisioned();
      int changes = 0;
      manager_->SetChangedCallback([&changes] { ++changes; });
      if (exchange) {
        transport_->Answer(200, kBothTokens);
        Exchange();
      }
      transport_->Answer(test.status, test.body);
      EXPECT_EQ(manager_->last_response().status, test.status);
      EXPECT_EQ(manager_->last_response().error, test.error) << test.body;
      EXPECT_EQ(manager_->last_response().time, base::Time::Now());
      EXPECT_EQ(manager_->HoldsAccessToken(), !*test.error);
      EXPECT_EQ(changes, exchange ? 2 : 1);
    }
  }
}

TEST_F(OAuth2ManagerTest, ATransportErrorIsALastResponseToo) {
  for (const bool exchange : {false, true}) {
    StartReady();
    int changes = 0;
    manager_->SetChangedCallback([&changes] { ++changes; });
    if (exchange)
      Exchange();
    else
      Rejects(401);
    Advance(base::TimeDelta::FromSeconds(30));
    if (!exchange) manager_->GetAccessToken();
    transport_->Fail("no route");
    EXPECT_EQ(manager_->last_response().status, 0);
    EXPECT_EQ(manager_->last_response().error, "no route");
    EXPECT_EQ(changes, 1);
  }
}

TEST_F(OAuth2ManagerTest, HoldsAccessTokenStartsNoRefresh) {
  StartReady();
  Rejects(401);
  Advance(base::TimeDelta::FromSeconds(30));
  EXPECT_FALSE(manager_->HoldsAccessToken());
  EXPECT_EQ(transport_->outstanding(), 0u);
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
