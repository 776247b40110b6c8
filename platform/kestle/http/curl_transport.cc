#include <map>
#include <memory>
#include <utility>

#include "base/callback.h"
#include "base/message_loop.h"
#include "base/weak_ptr.h"
#include "kestle/http/curl_multi.h"
#include "kestle/http/curl_transfer.h"
#include "kestle/http/transport.h"

namespace kestle::http {

namespace {

class CurlTransport : public Transport {
 public:
  CurlTransport() : multi_(CurrentMulti::Shared()) {}
  ~CurlTransport() override;

  void SetDefaultTimeout(base::TimeDelta timeout) override { timeout_ = timeout; }
  void SetConnectionReuse(bool reuse) override { reuse_ = reuse; }
  RequestID Send(Request request, const SuccessCallback& success,
                 const ErrorCallback& error) override;

 private:
  struct Outstanding {
    std::shared_ptr<CurlMulti> multi;
    std::unique_ptr<CurlTransfer> transfer;
    SuccessCallback success;
    ErrorCallback error;
  };

  [[nodiscard]] CURLcode Start(RequestID id, const Outstanding& request);
  void OnDone(RequestID id, CURLcode result);

  const std::shared_ptr<CurrentMulti> multi_;
  base::TimeDelta timeout_;
  bool reuse_ = true;
  RequestID last_id_ = 0;
  std::map<RequestID, Outstanding> outstanding_;
  base::WeakPtrFactory<CurlTransport> weak_ptr_factory_{this};
};

CurlTransport::~CurlTransport() {
  for (const auto& [id, request] : outstanding_) request.multi->Drop(request.transfer->easy());
}

RequestID CurlTransport::Send(Request request, const SuccessCallback& success,
                              const ErrorCallback& error) {
  const RequestID id = ++last_id_;
  const std::shared_ptr<CurlMulti>& multi = multi_->Get();
  auto transfer = std::make_unique<CurlTransfer>(std::move(request), timeout_, multi->cas());
  if (!reuse_) transfer->UseOwnConnection();
  const auto sent =
      outstanding_.emplace(id, Outstanding{multi, std::move(transfer), success, error}).first;
  const CURLcode started = Start(id, sent->second);
  if (started != CURLE_OK) {
    base::MessageLoop::Current()->PostTask(
        base::Bind(&CurlTransport::OnDone, weak_ptr_factory_.GetWeakPtr(), id, started));
  }
  return id;
}

CURLcode CurlTransport::Start(RequestID id, const Outstanding& request) {
  const CurlTransfer& transfer = *request.transfer;
  if (transfer.is_refused()) return CURLE_UNSUPPORTED_PROTOCOL;
  // Unretained: running transfers are dropped when this transport is destroyed.
  const bool started =
      request.multi->Start(transfer.easy(), transfer.time_left(),
                           base::Bind(&CurlTransport::OnDone, base::Unretained(this), id));
  return started ? CURLE_OK : CURLE_FAILED_INIT;
}

void CurlTransport::OnDone(RequestID id, CURLcode result) {
  const Outstanding& ended = outstanding_.at(id);
  if (ended.transfer->TurnToCaBundle(result) && Start(id, ended) == CURLE_OK) return;
  // Out of the map first: the callback may destroy this transport.
  const Outstanding request = std::move(outstanding_.extract(id).mapped());
  ErrorPtr error;
  std::unique_ptr<Response> response = request.transfer->TakeResponse(result, &error);
  if (response && !request.success.is_null()) request.success.Run(id, std::move(response));
  if (error && !request.error.is_null()) request.error.Run(id, error.get());
}

}  // namespace

std::shared_ptr<Transport> Transport::CreateDefault() { return std::make_shared<CurlTransport>(); }

}  // namespace kestle::http
