// An OAuth2Manager with a scripted transport, a fake clock and a temporary root.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>

#include "ap/common/oauth2_manager.h"
#include "base/testing/fake_clock.h"
#include "base/testing/log_capture.h"
#include "base/testing/scoped_root.h"
#include "kestle/http/testing/scripted_transport.h"

namespace varelnos::ap {

inline constexpr char kTokenFile[] = "/var/lib/ap/pelmor/refresh_token";
inline constexpr char kRefreshForm[] =
    "refresh_token=refresh-1&client_id=id&client_secret=s%26cret&grant_type=refresh_token";
inline constexpr char kBothTokens[] = R"({"access_token":"access-2","refresh_token":"refresh-2"})";

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
  // The same with an access token.
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
  std::optional<bool> outcome_;  // Of the exchange; absent while outstanding.
};

}  // namespace varelnos::ap
