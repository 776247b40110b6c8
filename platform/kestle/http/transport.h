// The interface for sending HTTP requests, which tests replace.
//
// Message loop's thread only. Exactly one of the two callbacks of a request runs, from the loop;
// neither runs if the transport is destroyed first. So a callback may be bound unretained to the
// sole owner of the transport.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/callback.h"
#include "base/time.h"
#include "kestle/error.h"

namespace kestle::http {

using RequestID = int;
// Names with their values, sent in this order.
using HeaderList = std::vector<std::pair<std::string, std::string>>;

// A server's response of any status, which has three digits (RFC 9110, section 15).
class Response {
 public:
  Response(int status_code, std::string body) : status_code_(status_code), body_(std::move(body)) {}

  [[nodiscard]] int GetStatusCode() const { return status_code_; }
  // A status from 200 to 299.
  [[nodiscard]] bool IsSuccessful() const { return status_code_ >= 200 && status_code_ <= 299; }
  // Moves the body to the caller.
  std::string ExtractDataAsString() { return std::move(body_); }

 private:
  int status_code_;
  std::string body_;
};

// A POST request, the only method in use.
struct Request {
  std::string url;
  HeaderList headers;
  std::string body;
};

// For a response of any status.
using SuccessCallback = base::Callback<void(RequestID, std::unique_ptr<Response>)>;
// For a request without a response: a rejected URL, a failure of DNS, connection or TLS, a timeout,
// or a response that is not HTTP. The error is valid during the call only.
using ErrorCallback = base::Callback<void(RequestID, const Error*)>;

class Transport {
 public:
  // A transport on libcurl, attached to the current message loop. It sends to https URLs, and to
  // plain http ones at loopback addresses alone; it verifies certificates and host names against
  // the system's CAs and follows no redirect. Transports share connections and the parsed CA store.
  static std::shared_ptr<Transport> CreateDefault();

  virtual ~Transport() = default;

  // The time limit from the start of a request to the end of its response. A response that arrived
  // while something else blocked the loop past the limit still counts. Default: no limit.
  virtual void SetDefaultTimeout(base::TimeDelta timeout) = 0;
  // Whether requests may reuse connections. libcurl resends a request if a reused connection turns
  // out to be closed. Default: true.
  virtual void SetConnectionReuse(bool reuse) = 0;
  // Never runs a callback before it returns.
  virtual RequestID Send(Request request, const SuccessCallback& success,
                         const ErrorCallback& error) = 0;
};

}  // namespace kestle::http
