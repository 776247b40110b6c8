#include "kestle/http/testing/scripted_transport.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace kestle::http {
namespace {

class ScriptedTransportTest : public testing::Test {
 protected:
  RequestID Send(const std::string& url) {
    return transport_->Send({url, {}, ""}, Noting(), NotingError());
  }
  SuccessCallback Noting() {
    return [this](RequestID id, std::unique_ptr<Response> response) {
      notes_.push_back(std::to_string(id) + ": " + std::to_string(response->GetStatusCode()) + " " +
                       response->ExtractDataAsString());
    };
  }
  ErrorCallback NotingError() {
    return [this](RequestID id, const Error* error) {
      notes_.push_back(std::to_string(id) + ": error " + error->GetMessage());
    };
  }

  std::shared_ptr<ScriptedTransport> transport_ = std::make_shared<ScriptedTransport>();
  std::vector<std::string> notes_;
};

using Notes = std::vector<std::string>;

TEST_F(ScriptedTransportTest, RecordsRequestsWithoutAnswering) {
  const RequestID first = Send("https://a.example/");
  const RequestID second = Send("https://b.example/");
  EXPECT_EQ(transport_->outstanding(), 2u);
  ASSERT_EQ(transport_->requests().size(), 2u);
  EXPECT_EQ(transport_->requests()[0].id, first);
  EXPECT_EQ(transport_->requests()[1].id, second);
  EXPECT_EQ(transport_->TakeRequest().url, "https://a.example/");
  EXPECT_EQ(transport_->TakeRequest().url, "https://b.example/");
  EXPECT_EQ(transport_->outstanding(), 2u);
  EXPECT_EQ(notes_, Notes());
}

TEST_F(ScriptedTransportTest, AnswersAndFailsTheOldestFirst) {
  Send("https://a.example/");
  Send("https://b.example/");
  transport_->Answer(200, "one");
  transport_->Fail("no route");
  EXPECT_EQ(notes_, (Notes{"1: 200 one", "2: error no route"}));
  EXPECT_EQ(transport_->outstanding(), 0u);
}

TEST_F(ScriptedTransportTest, AnswersOutOfOrder) {
  const RequestID first = Send("https://a.example/");
  const RequestID second = Send("https://b.example/");
  transport_->AnswerRequest(second, 401, "late");
  transport_->FailRequest(first, "lost");
  EXPECT_EQ(notes_, (Notes{"2: 401 late", "1: error lost"}));
}

TEST_F(ScriptedTransportTest, ACallbackMaySendAgain) {
  transport_->Send(
      {"https://a.example/", {}, ""},
      [this](RequestID, std::unique_ptr<Response>) { Send("https://b.example/"); }, NotingError());
  transport_->Answer(200);
  EXPECT_EQ(transport_->outstanding(), 1u);
  transport_->Answer(204);
  EXPECT_EQ(notes_, Notes{"2: 204 "});
}

TEST_F(ScriptedTransportTest, ACallbackMayDropTheTransport) {
  transport_->Send(
      {"https://a.example/", {}, ""},
      [this](RequestID, std::unique_ptr<Response>) { transport_.reset(); }, NotingError());
  Send("https://b.example/");
  transport_->Answer(200);
  EXPECT_EQ(transport_, nullptr);
  EXPECT_EQ(notes_, Notes());
}

TEST_F(ScriptedTransportTest, FindsAHeaderIgnoringCase) {
  transport_->Send({"https://a.example/", {{"X-One", "1"}}, ""}, {}, {});
  const SentRequest request = transport_->TakeRequest();
  EXPECT_EQ(request.Header("x-ONE"), "1");
  EXPECT_EQ(request.Header("X-Two"), "");
}

TEST_F(ScriptedTransportTest, RemembersTheDefaultTimeout) {
  EXPECT_EQ(transport_->default_timeout(), base::TimeDelta());
  transport_->SetDefaultTimeout(base::TimeDelta::FromSeconds(10));
  EXPECT_EQ(transport_->default_timeout(), base::TimeDelta::FromSeconds(10));
}

TEST_F(ScriptedTransportTest, AnsweringAnUnknownRequestFailsTheTest) {
  EXPECT_NONFATAL_FAILURE(transport_->Answer(200), "no such request is outstanding");
  EXPECT_NONFATAL_FAILURE(transport_->Fail("x"), "no such request is outstanding");
  EXPECT_NONFATAL_FAILURE(transport_->TakeRequest(), "no request was sent");
}

}  // namespace
}  // namespace kestle::http
