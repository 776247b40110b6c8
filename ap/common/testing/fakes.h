// Fakes of the uploader's collaborators. The test sets their results; each call is recorded in a
// shared journal, so that a test can check the order.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "ap/common/cloud_device.h"
#include "ap/common/oauth2_manager.h"
#include "ap/common/system_clock_client.h"
#include "base/callback.h"

namespace varelnos::ap {

using Journal = std::vector<std::string>;

class FakeCloudDevice : public CloudDevice {
 public:
  explicit FakeCloudDevice(Journal* journal) : CloudDevice(nullptr), journal_(journal) {}

  void Register(const std::string& device_id) {
    device_id_ = std::make_unique<std::string>(device_id);
  }
  void Unregister() { device_id_.reset(); }
  // `action` runs during each call.
  void WhileAsked(const base::Callback<void()>& action) { while_asked_ = action; }

  bool CheckDeviceRegistered(std::string* device_id, kestle::ErrorPtr* /*error*/) override {
    journal_->emplace_back("registered?");
    if (!while_asked_.is_null()) while_asked_.Run();
    if (device_id_) *device_id = *device_id_;
    return device_id_ != nullptr;
  }

 private:
  Journal* const journal_;
  std::unique_ptr<std::string> device_id_;  // Null: not registered.
  base::Callback<void()> while_asked_;
};

class FakeOAuth2Manager : public OAuth2Manager {
 public:
  explicit FakeOAuth2Manager(Journal* journal) : journal_(journal) {}

  void HoldToken(const std::string& token) { token_ = token; }
  void LoseToken() { token_.clear(); }

  std::string GetAccessToken() override {
    journal_->emplace_back("token?");
    return token_;
  }
  bool ValidateResponse(const kestle::http::Response& response) override {
    journal_->push_back("validate " + std::to_string(response.GetStatusCode()));
    if (response.GetStatusCode() != 401) return true;
    token_.clear();
    return false;
  }

 private:
  Journal* const journal_;
  std::string token_;
};

class FakeSystemClockClient : public SystemClockClient {
 public:
  explicit FakeSystemClockClient(Journal* journal) : journal_(journal) {}

  void AcquireNetworkTime() { has_network_time_ = true; }
  void ForgetNetworkTime() { has_network_time_ = false; }

  bool HasNetworkTime() override {
    journal_->emplace_back("clock?");
    return has_network_time_;
  }

 private:
  Journal* const journal_;
  bool has_network_time_ = false;
};

}  // namespace varelnos::ap
