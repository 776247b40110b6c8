// A fixture for tests of the real transport: a loop, a server, a transport, and a record of the
// callbacks.
#pragma once

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "base/message_loop.h"
#include "base/testing/run_until.h"
#include "kestle/http/testing/scripted_server.h"
#include "kestle/http/transport.h"

namespace kestle::http {

struct Outcome {
  RequestID id = 0;
  // Zero for an error.
  int status = 0;
  std::string body;
  std::string error_domain;
  std::string error_code;
  std::string error_message;
};

// The code of an `Error`.
inline std::string Code(CURLcode code) { return std::to_string(code); }

class TransportTest : public testing::Test {
 protected:
  RequestID Send(const std::string& url, const HeaderList& headers = {},
                 const std::string& body = "{}") {
    return SendBy(transport_.get(), {url, headers, body});
  }
  RequestID SendBy(Transport* transport, const Request& request) {
    return transport->Send(request, RecordResponse(), RecordError());
  }
  SuccessCallback RecordResponse() {
    return [this](RequestID id, std::unique_ptr<Response> response) {
      const int status = response->GetStatusCode();
      outcomes_.push_back({id, status, response->ExtractDataAsString(), "", "", ""});
    };
  }
  ErrorCallback RecordError() {
    return [this](RequestID id, const Error* error) {
      outcomes_.push_back({id, 0, "", error->GetDomain(), error->GetCode(), error->GetMessage()});
    };
  }

  // Waits for `count` callbacks, and some more iterations, for callbacks that must not run.
  void WaitForOutcomes(size_t count) {
    EXPECT_TRUE(base::RunUntil([&] { return outcomes_.size() >= count; }));
    for (int i = 0; i < 3; ++i) loop_.RunOnce(base::TimeDelta::FromMilliseconds(1));
    EXPECT_EQ(outcomes_.size(), count);
    // Keeps a test that failed here from reading past the end.
    outcomes_.resize(count);
  }
  void WaitForRequests(size_t count) {
    ASSERT_TRUE(base::RunUntil([&] { return server_.requests().size() >= count; }));
  }
  // Sends one request and waits for its outcome.
  Outcome Exchange(const std::string& url, const HeaderList& headers = {},
                   const std::string& body = "{}") {
    outcomes_.clear();
    Send(url, headers, body);
    EXPECT_TRUE(outcomes_.empty()) << "a callback ran before Send returned";
    WaitForOutcomes(1);
    return outcomes_.front();
  }

  ScriptedServer server_;
  base::MessageLoop loop_;
  std::shared_ptr<Transport> transport_ = Transport::CreateDefault();
  std::vector<Outcome> outcomes_;
};

}  // namespace kestle::http
