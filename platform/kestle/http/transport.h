// The seam between those who send HTTP requests and what carries them.
//
// Everything happens on the message loop: a request returns at once, and exactly one of its two
// callbacks runs later, unless the transport is destroyed first: then neither does. So a callback
// may be bound unretained to the one owner of the transport.
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

// An answer of a server, whatever its status, which has three digits (RFC 9110, section 15).
class Response {
 public:
  Response(int status_code, std::string body) : status_code_(status_code), body_(std::move(body)) {}

  [[nodiscard]] int GetStatusCode() const { return status_code_; }
  // A status from 200 to 299.
  [[nodiscard]] bool IsSuccessful() const { return status_code_ >= 200 && status_code_ <= 299; }
  // The body, which goes to the caller.
  std::string ExtractDataAsString() { return std::move(body_); }

 private:
  int status_code_;
  std::string body_;
};

// A POST, the only method that anyone here needs.
struct Request {
  std::string url;
  HeaderList headers;
  std::string body;
};

// For a response of any status.
using SuccessCallback = base::Callback<void(RequestID, std::unique_ptr<Response>)>;
// For a failure to get one: a refused URL, DNS, connection, TLS, time-out, an answer that is no
// HTTP. The error is the callee's to read during the call only.
using ErrorCallback = base::Callback<void(RequestID, const Error*)>;

class Transport {
 public:
  // A transport on libcurl, attached to the current message loop. It sends to https URLs, and to
  // plain http ones at loopback addresses alone; it verifies certificates and host names against
  // the system's CAs and follows no redirect. Transports share connections and the parsed CA store.
  static std::shared_ptr<Transport> CreateDefault();

  virtual ~Transport() = default;

  // The most that a request may take from its start to the end of its response. What has arrived
  // when the loop looks counts, even if something held the loop up beyond that. Default: no limit.
  virtual void SetDefaultTimeout(base::TimeDelta timeout) = 0;
  // Whether a request may use a connection on which others were answered. libcurl sends a request
  // again when such a connection turns out to be closed. Default: yes.
  virtual void SetConnectionReuse(bool reuse) = 0;
  // Never runs a callback before it returns.
  virtual RequestID Send(Request request, const SuccessCallback& success,
                         const ErrorCallback& error) = 0;
};

}  // namespace kestle::http
