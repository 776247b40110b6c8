// Feeds the token manager and the uploader responses of the token endpoint and of the service, with
// any status and body and in any order, and compares the tokens with a small model.

#include <algorithm>
#include <deque>
#include <nlohmann/json.hpp>

#include "base/logging.h"
#include "lab/fuzz/support.h"

namespace {

using nlohmann::json;
using varelnos::ap::OAuth2Manager;
using varelnos::ap::Uploader;

constexpr char kTokenFile[] = "/var/lib/ap/pelmor/refresh_token";
constexpr base::TimeDelta kRefreshInterval = base::TimeDelta::FromSeconds(30);

// A string member of a successful response; null if there is none.
std::unique_ptr<std::string> Member(int status, const std::string& body, const char* key) {
  const json fields = json::parse(body, nullptr, /*allow_exceptions=*/false);
  const bool exists =
      status < 400 && fields.is_object() && fields.contains(key) && fields.at(key).is_string();
  return exists ? std::make_unique<std::string>(fields.at(key)) : nullptr;
}

bool IsEmpty(const std::unique_ptr<std::string>& member) { return !member || member->empty(); }

class Scenario {
 public:
  explicit Scenario(FuzzedDataProvider* input) : input_(input) {
    if (input->ConsumeBool()) WriteFile("first");
    device_.Register("dev");
    clock_client_.AcquireNetworkTime();
    tokens_ = std::make_unique<OAuth2Manager>("id", "secret", "scope", base::FilePath(kTokenFile),
                                              identity_provider_);
    uploader_ = std::make_unique<Uploader>(&device_, tokens_.get(), &metrics_, &clock_client_,
                                           "https://service/v1", service_);
  }

  void Run() {
    RecordTokenRequests();
    for (int left = 40; left > 0 && input_->remaining_bytes() > 0; --left) {
      Act();
      RecordTokenRequests();
      CheckServiceRequests();
      CHECK(tokens_->HasRefreshToken() == !refresh_token_.empty());
      CHECK(root_.Has(kTokenFile) == !file_.empty());
      if (!file_.empty()) CHECK(root_.Get(kTokenFile) == file_);
    }
  }

 private:
  enum class Grant { kCode, kRefresh };

  void WriteFile(const std::string& token) {
    root_.Put(kTokenFile, token);
    refresh_token_ = file_ = token;
  }

  void RecordTokenRequests() {
    while (!identity_provider_->requests().empty()) {
      const kestle::http::SentRequest request = identity_provider_->TakeRequest();
      CHECK(request.url == varelnos::ap::kTokenEndpointUrl);
      const bool is_refresh = request.body.ends_with("&grant_type=refresh_token");
      CHECK(is_refresh || request.body.ends_with("&grant_type=authorization_code"));
      if (is_refresh) {
        const base::TimeTicks now = base::TimeTicks::Now();
        CHECK(last_refresh_.is_null() || now - last_refresh_ >= kRefreshInterval);
        last_refresh_ = now;
      }
      grants_.push_back(is_refresh ? Grant::kRefresh : Grant::kCode);
    }
  }

  void CheckServiceRequests() {
    while (!service_->requests().empty()) {
      const kestle::http::SentRequest request = service_->TakeRequest();
      CHECK(request.url.starts_with("https://service/v1/dev/"));
      CHECK(request.Header("Authorization").starts_with("Bearer "));
      CHECK(json::parse(request.body).is_object());
    }
  }

  std::string AnyBody() {
    switch (input_->ConsumeIntegralInRange(0, 3)) {
      case 0:
        return fuzz::AnyText(input_);
      case 1:
        return json{{"access_token", fuzz::BusText(input_)}, {"error", fuzz::BusText(input_)}}
            .dump();
      case 2:
        return R"({"access_token":)" + fuzz::AnyText(input_) + "}";
      default:
        return json{{"access_token", fuzz::BusText(input_)},
                    {"refresh_token", fuzz::BusText(input_)}}
            .dump();
    }
  }

  int AnyStatus() { return input_->ConsumeBool() ? 200 : input_->ConsumeIntegralInRange(0, 999); }

  void AnswerTokens() {
    if (grants_.empty()) return;
    const Grant grant = grants_.front();
    grants_.pop_front();
    const int status = AnyStatus();
    const std::string body = AnyBody();
    const auto access = Member(status, body, "access_token");
    const auto refresh = Member(status, body, "refresh_token");
    const int succeeded = succeeded_;
    const int failed = failed_;
    identity_provider_->Answer(status, body);
    if (grant == Grant::kRefresh) {
      if (IsEmpty(access)) refresh_token_ = file_ = "";
      CHECK(IsEmpty(access) || tokens_->GetAccessToken() == *access);
      return;
    }
    const bool success = !IsEmpty(access) && !IsEmpty(refresh);
    CHECK(succeeded_ == succeeded + (success ? 1 : 0) && failed_ == failed + (success ? 0 : 1));
    // The refresh token stays in memory even if the exchange failed.
    if (access && refresh) refresh_token_ = *refresh;
    if (success) file_ = *refresh;
  }

  void FailTokens() {
    if (grants_.empty()) return;
    const int failed = failed_;
    const bool is_exchange = grants_.front() == Grant::kCode;
    grants_.pop_front();
    identity_provider_->Fail("scripted");
    CHECK(failed_ == failed + (is_exchange ? 1 : 0));
  }

  void Exchange() {
    const bool is_outstanding =
        std::find(grants_.begin(), grants_.end(), Grant::kCode) != grants_.end();
    const int failed = failed_;
    tokens_->ExchangeAuthorizationCode(
        fuzz::BusText(input_), [this](bool success) { ++(success ? succeeded_ : failed_); });
    CHECK(failed_ == failed + (is_outstanding ? 1 : 0));
    if (!is_outstanding) refresh_token_ = "";
  }

  void Act() {
    switch (input_->ConsumeIntegralInRange(0, 9)) {
      case 0:
      case 1:
        return AnswerTokens();
      case 2:
        return FailTokens();
      case 3:
        return Exchange();
      case 4:
        return clock_.Advance(
            base::TimeDelta::FromSeconds(input_->PickValueInArray({1, 29, 30, 1799, 1800})));
      case 5:
        return uploader_->RecordMetric("m", {}, 1);
      case 6:
        return uploader_->RecordStructuredData("t", "bytes");
      case 7:
        if (service_->outstanding() > 0) service_->Answer(AnyStatus(), AnyBody());
        return;
      case 8:
        if (service_->outstanding() > 0) service_->Fail("scripted");
        return;
      default:
        return uploader_->Upload();
    }
  }

  FuzzedDataProvider* const input_;
  const base::ScopedRoot& root_ = fuzz::DeviceFiles::Fresh().root();
  base::FakeClock clock_{fuzz::kNow};
  varelnos::ap::Journal journal_;
  varelnos::ap::FakeCloudDevice device_{&journal_};
  varelnos::ap::FakeSystemClockClient clock_client_{&journal_};
  fuzz::SilentMetrics metrics_;
  const std::shared_ptr<kestle::http::ScriptedTransport> identity_provider_ =
      std::make_shared<kestle::http::ScriptedTransport>();
  const std::shared_ptr<kestle::http::ScriptedTransport> service_ =
      std::make_shared<kestle::http::ScriptedTransport>();
  std::unique_ptr<OAuth2Manager> tokens_;
  std::unique_ptr<Uploader> uploader_;

  // The model.
  std::string refresh_token_;
  std::string file_;
  std::deque<Grant> grants_;  // Outstanding, oldest first.
  base::TimeTicks last_refresh_;
  int succeeded_ = 0;
  int failed_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const fuzz::Quiet quiet;
  FuzzedDataProvider input(data, size);
  Scenario(&input).Run();
  return 0;
}
