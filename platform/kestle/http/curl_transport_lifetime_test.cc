#include <string>
#include <utility>
#include <vector>

#include "kestle/http/testing/transport_fixture.h"

namespace kestle::http {
namespace {

using After = ScriptedServer::After;

constexpr base::TimeDelta kLong = base::TimeDelta::FromSeconds(10);

class TransportLifetimeTest : public TransportTest {
 protected:
  // Runs some iterations of the loop, for callbacks that must not run.
  void Idle() {
    for (int i = 0; i < 10; ++i) loop_.RunOnce(base::TimeDelta::FromMilliseconds(2));
  }
};

TEST_F(TransportLifetimeTest, ReusesAConnectionForTheNextRequest) {
  for (int i = 0; i < 3; ++i) {
    server_.Reply(HttpReply(200, ""));
    EXPECT_EQ(Exchange(server_.Url()).status, 200);
  }
  ASSERT_EQ(server_.requests().size(), 3u);
  for (const auto& request : server_.requests()) EXPECT_EQ(request.connection, 1);
}

TEST_F(TransportLifetimeTest, RequestsThatTimeOutTogetherEndInTheOrderOfTheirStart) {
  constexpr size_t kRequests = 8;
  transport_->SetDefaultTimeout(base::TimeDelta::FromMilliseconds(30));
  std::vector<RequestID> started;
  for (size_t i = 0; i < kRequests; ++i) started.push_back(Send(server_.Url()));
  WaitForOutcomes(kRequests);
  std::vector<RequestID> ended;
  for (const Outcome& outcome : outcomes_) {
    EXPECT_EQ(outcome.error_code, Code(CURLE_OPERATION_TIMEDOUT));
    ended.push_back(outcome.id);
  }
  EXPECT_EQ(ended, started);
}

TEST_F(TransportLifetimeTest, ReconnectsAfterTheServerClosedTheConnection) {
  server_.Reply(HttpReply(200, ""), After::kClose);
  EXPECT_EQ(Exchange(server_.Url()).status, 200);
  server_.Reply(HttpReply(200, "again"));
  EXPECT_EQ(Exchange(server_.Url()).body, "again");
  EXPECT_EQ(server_.requests().at(1).connection, 2);
}

// The server may close a connection just as a request is sent on it.
TEST_F(TransportLifetimeTest, ARequestLostOnAReusedConnectionIsResentImmediately) {
  server_.Reply(HttpReply(200, ""));
  EXPECT_EQ(Exchange(server_.Url()).status, 200);
  server_.Reply("", After::kClose);
  server_.Reply(HttpReply(200, "at last"));
  EXPECT_EQ(Exchange(server_.Url(), {}, "same").body, "at last");
  ASSERT_EQ(server_.requests().size(), 3u);
  EXPECT_EQ(server_.requests()[1].body, "same");
  EXPECT_EQ(server_.requests()[2].body, "same");
  EXPECT_EQ(server_.requests()[1].connection, 1);
  EXPECT_EQ(server_.requests()[2].connection, 2);
}

TEST_F(TransportLifetimeTest, EachReusedConnectionLosesARequestAtMostOnce) {
  for (const size_t used : {0u, 1u, 2u, 4u}) {
    ScriptedServer server;
    outcomes_.clear();
    for (size_t i = 0; i < used; ++i) SendBy(transport_.get(), {server.Url(), {}, ""});
    ASSERT_TRUE(base::RunUntil([&] { return server.requests().size() == used; }));
    for (size_t i = 0; i < used; ++i) server.Reply(HttpReply(200, ""));
    WaitForOutcomes(used);
    constexpr size_t kPlenty = 20;
    for (size_t i = 0; i < kPlenty; ++i) server.Reply("", After::kClose);
    EXPECT_EQ(Exchange(server.Url()).status, 0);
    EXPECT_EQ(server.requests().size() - used, used + 1) << used;
  }
}

TEST_F(TransportLifetimeTest, UnsolicitedBytesAreNotTheNextResponse) {
  for (const After after : {After::kKeepOpen, After::kClose}) {
    for (const std::string& unasked :
         {HttpReply(408, "too late"), HttpReply(200, "surplus"), std::string("HTTP/1.1 200 X\r\n"),
          std::string("x"), std::string(size_t{100} * 1024, 'x')}) {
      ScriptedServer server;
      server.Reply(HttpReply(200, "one"));
      EXPECT_EQ(Exchange(server.Url()).body, "one");
      server.SendUnasked(1, unasked, after);
      server.Reply(HttpReply(200, "two"));
      EXPECT_EQ(Exchange(server.Url()).body, "two");
      EXPECT_EQ(server.requests().back().connection, 2);
      server.Reply(HttpReply(200, "three"));
      EXPECT_EQ(Exchange(server.Url()).body, "three");
      EXPECT_EQ(server.requests().back().connection, 2);
    }
  }
}

// The loop may be blocked between the start of a request and its first step.
TEST_F(TransportLifetimeTest, UnsolicitedBytesAfterTheStartOfARequestAreNotItsResponse) {
  server_.Reply(HttpReply(200, "one"));
  EXPECT_EQ(Exchange(server_.Url()).body, "one");
  outcomes_.clear();
  Send(server_.Url());
  server_.SendUnasked(1, HttpReply(408, "too late"));
  server_.Reply(HttpReply(200, "two"));
  WaitForOutcomes(1);
  EXPECT_EQ(outcomes_[0].body, "two");
}

TEST_F(TransportLifetimeTest, AnUnsolicitedResponseDoesNotAffectOtherConnections) {
  for (int i = 0; i < 2; ++i) Send(server_.Url());
  WaitForRequests(2);
  for (int i = 0; i < 2; ++i) server_.Reply(HttpReply(200, ""));
  WaitForOutcomes(2);
  server_.SendUnasked(1, HttpReply(408, ""));
  for (int i = 0; i < 3; ++i) {
    server_.Reply(HttpReply(200, "next"));
    EXPECT_EQ(Exchange(server_.Url()).body, "next");
    EXPECT_EQ(server_.requests().back().connection, 2);
  }
}

TEST_F(TransportLifetimeTest, WithoutReuseEachRequestHasItsOwnConnection) {
  const auto single = Transport::CreateDefault();
  single->SetConnectionReuse(false);
  server_.Reply(HttpReply(200, ""));
  EXPECT_EQ(Exchange(server_.Url()).status, 200);
  for (size_t i = 0; i < 2; ++i) {
    server_.Reply(HttpReply(200, ""));
    SendBy(single.get(), {server_.Url(), {}, ""});
    WaitForOutcomes(2 + i);
    EXPECT_EQ(server_.requests().back().connection, 2 + static_cast<int>(i));
  }
  // The other transport does not use these connections either.
  server_.Reply(HttpReply(200, ""));
  EXPECT_EQ(Exchange(server_.Url()).status, 200);
  EXPECT_EQ(server_.requests().back().connection, 1);
}

TEST_F(TransportLifetimeTest, WithoutReuseNoRequestIsResent) {
  transport_->SetConnectionReuse(false);
  server_.Reply(HttpReply(200, ""));
  EXPECT_EQ(Exchange(server_.Url()).status, 200);
  server_.Reply("", After::kClose);
  server_.Reply(HttpReply(200, "for a copy"));
  EXPECT_EQ(Exchange(server_.Url()).error_code, Code(CURLE_GOT_NOTHING));
  EXPECT_EQ(server_.requests().size(), 2u);
}

TEST_F(TransportLifetimeTest, TransportsShareConnections) {
  const auto other = Transport::CreateDefault();
  server_.Reply(HttpReply(200, ""));
  server_.Reply(HttpReply(200, ""));
  SendBy(transport_.get(), {server_.Url(), {}, ""});
  WaitForOutcomes(1);
  SendBy(other.get(), {server_.Url(), {}, ""});
  WaitForOutcomes(2);
  EXPECT_EQ(server_.requests().at(0).connection, server_.requests().at(1).connection);
}

TEST_F(TransportLifetimeTest, TheLastTransportClosesTheConnections) {
  auto other = Transport::CreateDefault();
  server_.Reply(HttpReply(200, ""));
  EXPECT_EQ(Exchange(server_.Url()).status, 200);
  transport_.reset();
  server_.Reply(HttpReply(200, ""));
  SendBy(other.get(), {server_.Url(), {}, ""});
  WaitForOutcomes(2);
  EXPECT_EQ(server_.requests().at(1).connection, 1);
  EXPECT_EQ(server_.hang_ups(), 0u);
  other.reset();
  EXPECT_TRUE(base::RunUntil([this] { return server_.hang_ups() == 1; }));
}

TEST_F(TransportLifetimeTest, EachTransportHasItsOwnTimeout) {
  const auto other = Transport::CreateDefault();
  other->SetDefaultTimeout(base::TimeDelta::FromMilliseconds(30));
  const RequestID patient = SendBy(transport_.get(), {server_.Url(), {}, ""});
  WaitForRequests(1);
  SendBy(other.get(), {server_.Url(), {}, ""});
  WaitForOutcomes(1);
  EXPECT_EQ(outcomes_[0].status, 0);
  server_.Reply(HttpReply(200, ""));
  WaitForOutcomes(2);
  EXPECT_EQ(outcomes_[1].id, patient);
  EXPECT_EQ(outcomes_[1].status, 200);
}

TEST_F(TransportLifetimeTest, ADestroyedTransportDropsOnlyItsRequests) {
  auto other = Transport::CreateDefault();
  SendBy(transport_.get(), {server_.Url(), {}, ""});
  WaitForRequests(1);
  SendBy(other.get(), {server_.Url(), {}, ""});
  WaitForRequests(2);
  transport_.reset();
  EXPECT_TRUE(base::RunUntil([this] { return server_.hang_ups() == 1; }));
  server_.Reply(HttpReply(200, "for the other"));
  WaitForOutcomes(1);
  EXPECT_EQ(outcomes_[0].body, "for the other");
}

TEST_F(TransportLifetimeTest, ARequestCanBeDroppedAtAnyStage) {
  // Not begun yet.
  Send(server_.Url());
  transport_ = Transport::CreateDefault();
  // Rejected, with its callback pending.
  Send("http://cloud.example/");
  transport_ = Transport::CreateDefault();
  // While its host name is resolved.
  Send("https://host.invalid/");
  loop_.RunOnce(base::TimeDelta());
  transport_ = Transport::CreateDefault();
  // In the middle of the response.
  server_.Reply("HTTP/1.1 200 X\r\nContent-Length: 100\r\n\r\nhalf");
  Send(server_.Url());
  WaitForRequests(1);
  Idle();
  transport_.reset();
  Idle();
  EXPECT_TRUE(outcomes_.empty());
}

TEST_F(TransportLifetimeTest, PendingRequestsCanBeDroppedAfterTheLoopHasEnded) {
  const auto other = Transport::CreateDefault();
  transport_->SetDefaultTimeout(kLong);
  other->SetDefaultTimeout(kLong);
  SendBy(transport_.get(), {server_.Url(), {}, ""});
  SendBy(other.get(), {server_.Url(), {}, ""});
  WaitForRequests(2);
  base::MessageLoop::Current()->Quit(0);
  loop_.Run();
  transport_.reset();
  EXPECT_TRUE(outcomes_.empty());
}

TEST_F(TransportLifetimeTest, ACallbackMaySendAgain) {
  transport_->Send(
      {server_.Url("/first"), {}, "first"},
      [this](RequestID, std::unique_ptr<Response>) { Send(server_.Url("/second")); },
      RecordError());
  server_.Reply(HttpReply(401, ""));
  server_.Reply(HttpReply(200, "second"));
  WaitForOutcomes(1);
  EXPECT_EQ(outcomes_[0].body, "second");
  EXPECT_EQ(server_.requests().at(1).connection, 1);
}

TEST_F(TransportLifetimeTest, AnErrorCallbackMaySendAgain) {
  transport_->Send({"http://cloud.example/", {}, ""}, RecordResponse(),
                   [this](RequestID, const Error*) { Send(server_.Url()); });
  server_.Reply(HttpReply(200, "after all"));
  WaitForOutcomes(1);
  EXPECT_EQ(outcomes_[0].body, "after all");
}

TEST_F(TransportLifetimeTest, ACallbackMayDestroyTheTransport) {
  bool ran = false;
  transport_->Send(
      {server_.Url("/first"), {}, ""},
      [&](RequestID, std::unique_ptr<Response> response) {
        ran = true;
        transport_.reset();
        EXPECT_EQ(response->ExtractDataAsString(), "still here");
      },
      RecordError());
  WaitForRequests(1);
  Send(server_.Url("/second"));
  WaitForRequests(2);
  server_.Reply(HttpReply(200, "still here"));
  EXPECT_TRUE(base::RunUntil([&] { return ran; }));
  EXPECT_EQ(transport_, nullptr);
  Idle();
  EXPECT_TRUE(outcomes_.empty());
}

TEST_F(TransportLifetimeTest, AnErrorCallbackMayDestroyTheTransport) {
  for (const std::string& url : {std::string("http://cloud.example/"), server_.Url()}) {
    transport_ = Transport::CreateDefault();
    std::string message;
    transport_->Send({url, {}, ""}, RecordResponse(), [&](RequestID, const Error* error) {
      transport_.reset();
      message = error->GetMessage();
    });
    server_.Reply("", After::kClose);
    EXPECT_TRUE(base::RunUntil([&] { return !message.empty(); }));
    EXPECT_EQ(transport_, nullptr);
  }
}

TEST_F(TransportLifetimeTest, ConcurrentResponsesEachRunTheirCallback) {
  constexpr size_t kRequests = 20;
  for (size_t i = 0; i < kRequests; ++i) Send(server_.Url());
  WaitForRequests(kRequests);
  for (size_t i = 0; i < kRequests; ++i) server_.Reply(HttpReply(200, std::to_string(i)));
  WaitForOutcomes(kRequests);
  std::vector<bool> seen(kRequests + 1);
  for (const Outcome& outcome : outcomes_) {
    EXPECT_EQ(outcome.status, 200);
    EXPECT_FALSE(seen.at(static_cast<size_t>(outcome.id)));
    seen[static_cast<size_t>(outcome.id)] = true;
  }
}

TEST_F(TransportLifetimeTest, CallbacksMayBeNull) {
  transport_->Send({server_.Url(), {}, ""}, {}, {});
  transport_->Send({"http://cloud.example/", {}, ""}, {}, {});
  server_.Reply(HttpReply(200, ""));
  server_.Reply(HttpReply(200, "noted"));
  WaitForRequests(1);
  EXPECT_EQ(Exchange(server_.Url()).body, "noted");
}

}  // namespace
}  // namespace kestle::http
