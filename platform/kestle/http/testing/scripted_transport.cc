#include "kestle/http/testing/scripted_transport.h"

#include <gtest/gtest.h>
#include <strings.h>

#include <algorithm>
#include <memory>
#include <utility>

namespace kestle::http {

std::string SentRequest::Header(const std::string& name) const {
  std::string value;
  int count = 0;
  for (const auto& [header, text] : headers) {
    if (strcasecmp(header.c_str(), name.c_str()) != 0) continue;
    value = text;
    ++count;
  }
  EXPECT_LE(count, 1) << "several headers named " << name;
  return value;
}

RequestID ScriptedTransport::Send(Request request, const SuccessCallback& success,
                                  const ErrorCallback& error) {
  const RequestID id = ++last_id_;
  requests_.push_back({std::move(request), id});
  outstanding_.push_back({id, success, error});
  return id;
}

void ScriptedTransport::Answer(int status, std::string body) {
  AnswerRequest(Oldest(), status, std::move(body));
}

void ScriptedTransport::Fail(std::string message) { FailRequest(Oldest(), std::move(message)); }

void ScriptedTransport::AnswerRequest(RequestID id, int status, std::string body) {
  const Outstanding request = TakeOutstanding(id);
  if (!request.success.is_null())
    request.success.Run(id, std::make_unique<Response>(status, std::move(body)));
}

void ScriptedTransport::FailRequest(RequestID id, std::string message) {
  const Outstanding request = TakeOutstanding(id);
  const Error error("http", "scripted", std::move(message));
  if (!request.error.is_null()) request.error.Run(id, &error);
}

SentRequest ScriptedTransport::TakeRequest() {
  if (requests_.empty()) {
    ADD_FAILURE() << "no request was sent";
    return {};
  }
  SentRequest oldest = std::move(requests_.front());
  requests_.erase(requests_.begin());
  return oldest;
}

RequestID ScriptedTransport::Oldest() const {
  return outstanding_.empty() ? 0 : outstanding_.front().id;
}

ScriptedTransport::Outstanding ScriptedTransport::TakeOutstanding(RequestID id) {
  const auto found = std::find_if(outstanding_.begin(), outstanding_.end(),
                                  [id](const Outstanding& request) { return request.id == id; });
  if (found == outstanding_.end()) {
    ADD_FAILURE() << "no such request is outstanding: " << id;
    return {};
  }
  Outstanding request = std::move(*found);
  outstanding_.erase(found);
  return request;
}

}  // namespace kestle::http
