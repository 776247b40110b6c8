// The exchange of an authorization code for tokens.

#include "ap/common/testing/oauth2_manager_test_base.h"

namespace varelnos::ap {
namespace {

using testing::ElementsAre;

TEST_F(OAuth2ManagerTest, AnExchangePostsTheCodeAndWipesTheOldTokensButNotTheFile) {
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

TEST_F(OAuth2ManagerTest, AnExchangeWithBothTokensSucceeds) {
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

TEST_F(OAuth2ManagerTest, TheCallbackRunsBeforeTheTokenIsOnDisk) {
  Start();
  bool on_disk = true;
  manager_->ExchangeAuthorizationCode("code",
                                      [&](bool /*success*/) { on_disk = root_.Has(kTokenFile); });
  transport_->Answer(200, kBothTokens);
  EXPECT_FALSE(on_disk);
  EXPECT_TRUE(root_.Has(kTokenFile));
}

// Deliberate: a 401 starts a refresh even without a refresh token, and its failure ends the
// credentials.
TEST_F(OAuth2ManagerTest, A401DuringAnExchangeRefreshesWithAnEmptyTokenAndEndsTheCredentials) {
  StartReady();
  Exchange();
  transport_->TakeRequest();
  Advance(base::TimeDelta::FromSeconds(30));
  EXPECT_TRUE(Rejects(401));
  EXPECT_EQ(transport_->TakeRequest().body,
            "refresh_token=&client_id=id&client_secret=s%26cret&grant_type=refresh_token");
  transport_->Answer(200, kBothTokens);
  EXPECT_EQ(outcome_, true);
  EXPECT_EQ(root_.Get(kTokenFile), "refresh-2");
  transport_->Answer(400, R"({"error":"invalid_grant"})");
  EXPECT_FALSE(manager_->HasRefreshToken());
  EXPECT_EQ(manager_->GetAccessToken(), "");
  EXPECT_FALSE(root_.Has(kTokenFile));
  EXPECT_THAT(
      log_.lines(),
      ElementsAre("INFO Fetching refresh token", "INFO Access token invalidated",
                  "INFO Refreshing access token.", "INFO Successfully fetched refresh token: 200",
                  "INFO Successfully fetched access token: 400",
                  "ERROR Error parsing oauth2 response: invalid_grant - 400"));
}

TEST_F(OAuth2ManagerTest, AFailedWriteOfTheTokenIsIgnored) {
  Start();
  root_.Remove("/var/lib/ap");
  Exchange();
  transport_->Answer(200, kBothTokens);
  EXPECT_EQ(outcome_, true);
  EXPECT_EQ(manager_->GetAccessToken(), "access-2");
}

TEST_F(OAuth2ManagerTest, AnExchangeFailsOnEveryUnusableResponse) {
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

TEST_F(OAuth2ManagerTest, AnExchangeWithOnlyAnAccessTokenFailsAndKeepsIt) {
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

TEST_F(OAuth2ManagerTest, AnExchangeFailsOnATransportError) {
  Start();
  Exchange();
  log_.Clear();
  transport_->Fail("no route to host");
  EXPECT_EQ(outcome_, false);
  EXPECT_THAT(log_.lines(), ElementsAre("WARNING Error fetching refresh token: no route to host"));
}

TEST_F(OAuth2ManagerTest, ASecondExchangeFailsImmediatelyAndDoesNotAffectTheFirst) {
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

TEST_F(OAuth2ManagerTest, AnExchangeIsOutstandingUntilItsCallbackReturns) {
  Start();
  std::optional<bool> second;
  manager_->ExchangeAuthorizationCode("code 1", [&](bool) {
    manager_->ExchangeAuthorizationCode("code 2", [&](bool success) { second = success; });
  });
  transport_->Answer(200, kBothTokens);
  EXPECT_EQ(second, false);
  EXPECT_EQ(root_.Get(kTokenFile), "refresh-2");
}

TEST_F(OAuth2ManagerTest, AnExchangeWhoseTokenWasWipedByItsCallbackIsFatal) {
  StartReady();
  // A refresh that fails within the callback wipes the new tokens.
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

}  // namespace
}  // namespace varelnos::ap
