#include <curl/curl.h>

#include <string>

#include "kestle/http/curl_transfer.h"
#include "kestle/http/testing/transport_fixture.h"

namespace kestle::http {
namespace {

// Blocks the loop, as a blocking call does.
void BlockLoop(base::TimeDelta time) {
  const base::TimeTicks start = base::TimeTicks::Now();
  while (base::TimeTicks::Now() - start <= time) {
  }
}

TEST_F(TransportTest, ARequestPastItsTimeoutIsAnError) {
  transport_->SetDefaultTimeout(base::TimeDelta::FromMilliseconds(30));
  const Outcome silent = Exchange(server_.Url());
  EXPECT_EQ(silent.error_code, Code(CURLE_OPERATION_TIMEDOUT));
  EXPECT_EQ(silent.error_message, "Operation timed out after 30 milliseconds with no answer");

  // The timeout covers the whole response.
  server_.Reply("HTTP/1.1 200 X\r\nContent-Length: 100\r\n\r\nhalf");
  const Outcome half = Exchange(server_.Url());
  EXPECT_EQ(half.error_code, Code(CURLE_OPERATION_TIMEDOUT));
}

// Something else may block the loop for longer than the timeout.
TEST_F(TransportTest, AResponseThatArrivedWhileTheLoopWasBlockedCounts) {
  constexpr base::TimeDelta kTimeout = base::TimeDelta::FromMilliseconds(100);
  transport_->SetDefaultTimeout(kTimeout);
  for (const std::string& body :
       {std::string("in time"), std::string(kMaxResponseBodyBytes, 'b')}) {
    outcomes_.clear();
    Send(server_.Url());
    WaitForRequests(server_.requests().size() + 1);
    server_.Reply(HttpReply(200, body));
    BlockLoop(kTimeout);
    WaitForOutcomes(1);
    EXPECT_EQ(outcomes_[0].status, 200) << outcomes_[0].error_message;
    EXPECT_EQ(outcomes_[0].body.size(), body.size());
  }
}

TEST_F(TransportTest, AResponseThatArrivedIsReadBeforeItsRequestTimesOut) {
  static constexpr base::TimeDelta kTimeout = base::TimeDelta::FromMilliseconds(100);
  transport_->SetDefaultTimeout(kTimeout);
  Send(server_.Url());
  WaitForRequests(1);
  loop_.PostTask([] { BlockLoop(kTimeout); });
  // The loop has now noticed the timeout, and only afterwards sees the socket.
  loop_.PostTask([&] { server_.SendUnasked(1, HttpReply(200, "in time")); });
  WaitForOutcomes(1);
  EXPECT_EQ(outcomes_[0].body, "in time") << outcomes_[0].error_message;
}

TEST_F(TransportTest, APartialResponseAfterTheLoopWasBlockedTimesOut) {
  constexpr base::TimeDelta kTimeout = base::TimeDelta::FromMilliseconds(100);
  transport_->SetDefaultTimeout(kTimeout);
  Send(server_.Url());
  WaitForRequests(1);
  server_.Reply("HTTP/1.1 200 X\r\nContent-Length: 100\r\n\r\nhalf");
  BlockLoop(kTimeout);
  WaitForOutcomes(1);
  EXPECT_EQ(outcomes_[0].error_code, Code(CURLE_OPERATION_TIMEDOUT));
  EXPECT_EQ(outcomes_[0].error_message,
            "Operation timed out after 100 milliseconds with an unfinished answer");
}

// The loop also runs the first step of a request.
TEST_F(TransportTest, TheTimeoutStartsWithTheFirstStepOfARequest) {
  constexpr base::TimeDelta kTimeout = base::TimeDelta::FromMilliseconds(100);
  transport_->SetDefaultTimeout(kTimeout);
  server_.Reply(HttpReply(200, "after all"));
  Send(server_.Url());
  BlockLoop(kTimeout);
  WaitForOutcomes(1);
  EXPECT_EQ(outcomes_[0].body, "after all");
}

TEST_F(TransportTest, AfterATimeoutTheNextRequestHasANewConnection) {
  server_.Reply(HttpReply(200, "before"));
  EXPECT_EQ(Exchange(server_.Url()).body, "before");
  transport_->SetDefaultTimeout(base::TimeDelta::FromMilliseconds(30));
  EXPECT_EQ(Exchange(server_.Url()).error_code, Code(CURLE_OPERATION_TIMEDOUT));
  transport_->SetDefaultTimeout(base::TimeDelta());
  // The server may or may not have received the request that timed out.
  for (int replies = 0; replies < 2; ++replies) server_.Reply(HttpReply(200, "after"));
  EXPECT_EQ(Exchange(server_.Url()).body, "after");
  EXPECT_EQ(server_.requests().back().connection, 2);
}

TEST_F(TransportTest, ARequestHasTheDefaultTimeoutAtItsStart) {
  transport_->SetDefaultTimeout(base::TimeDelta());
  Send(server_.Url("/patient"));
  transport_->SetDefaultTimeout(base::TimeDelta::FromMilliseconds(30));
  WaitForRequests(1);
  const RequestID hasty = Send(server_.Url("/hasty"));
  WaitForOutcomes(1);
  EXPECT_EQ(outcomes_[0].id, hasty);
  server_.Reply(HttpReply(200, ""));
  WaitForOutcomes(2);
  EXPECT_EQ(outcomes_[1].status, 200);
}

}  // namespace
}  // namespace kestle::http
