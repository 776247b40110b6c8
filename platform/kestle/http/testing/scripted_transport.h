// A fake transport: it records the requests, and the test answers them.
//
//   PostJson(url, body, headers, transport, success, error);
//   EXPECT_EQ(transport->TakeRequest().body, "{}");
//   transport->Answer(200, "{}");
//
// Callbacks run inside the methods below; they may send again. Answering a request that is not
// outstanding fails the test.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "kestle/http/transport.h"

namespace kestle::http {

struct SentRequest : Request {
  RequestID id = 0;

  // The value of the header of this name, ignoring case. Empty if there is none; fails the test if
  // there are several.
  [[nodiscard]] std::string Header(const std::string& name) const;
};

class ScriptedTransport : public Transport {
 public:
  void SetDefaultTimeout(base::TimeDelta timeout) override { default_timeout_ = timeout; }
  void SetConnectionReuse(bool reuse) override { connection_reuse_ = reuse; }
  RequestID Send(Request request, const SuccessCallback& success,
                 const ErrorCallback& error) override;

  // Answers the oldest outstanding request.
  void Answer(int status, std::string body = "");
  // Ends the oldest outstanding request with an error.
  void Fail(std::string message);
  // The same for any outstanding request.
  void AnswerRequest(RequestID id, int status, std::string body = "");
  void FailRequest(RequestID id, std::string message);

  // Requests that were neither answered nor failed.
  [[nodiscard]] size_t outstanding() const { return outstanding_.size(); }
  // Every request sent and not taken, oldest first.
  [[nodiscard]] const std::vector<SentRequest>& requests() const { return requests_; }
  // Removes the oldest request from `requests()`; it stays outstanding. Fails the test if there is
  // none.
  SentRequest TakeRequest();
  [[nodiscard]] base::TimeDelta default_timeout() const { return default_timeout_; }
  [[nodiscard]] bool connection_reuse() const { return connection_reuse_; }

 private:
  struct Outstanding {
    RequestID id = 0;
    SuccessCallback success;
    ErrorCallback error;
  };

  // The id of the oldest outstanding request; 0, which no request has, if there is none.
  [[nodiscard]] RequestID Oldest() const;
  // An entry with null callbacks if there is no such request.
  Outstanding TakeOutstanding(RequestID id);

  base::TimeDelta default_timeout_;
  bool connection_reuse_ = true;
  RequestID last_id_ = 0;
  std::vector<SentRequest> requests_;
  std::vector<Outstanding> outstanding_;
};

}  // namespace kestle::http
