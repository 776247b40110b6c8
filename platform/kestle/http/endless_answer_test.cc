// Servers whose response never ends, fast or slow.

#include <curl/curl.h>

#include <chrono>
#include <string>

#include "kestle/http/curl_transfer.h"
#include "kestle/http/testing/endless_server.h"
#include "kestle/http/testing/transport_fixture.h"

namespace kestle::http {
namespace {

constexpr size_t kKibibyte = 1024;
// The most that is in flight between two sockets of this machine.
constexpr size_t kMaxInFlightBytes = 16 * kKibibyte * kKibibyte;

constexpr char kChunked[] = "HTTP/1.1 200 X\r\nTransfer-Encoding: chunked\r\n\r\n";

class EndlessAnswer : public TransportTest {
 protected:
  // The outcome, and how much of the response was sent before the client disconnected.
  Outcome Read(EndlessServer* server, size_t* repeats) {
    Outcome outcome = Exchange(server->Url());
    EXPECT_TRUE(base::RunUntil([&] { return server->has_ended(); }));
    *repeats = server->repeats();
    return outcome;
  }
};

TEST_F(EndlessAnswer, AMebibyteOfTheBodyIsReadWithoutAnError) {
  const std::string filler(64 * kKibibyte, 'b');
  for (const std::string& start :
       {std::string("HTTP/1.1 200 X\r\n\r\n"),
        std::string("HTTP/1.1 200 X\r\nContent-Length: 1073741824\r\n\r\n")}) {
    EndlessServer server(start, filler);
    size_t repeats = 0;
    const Outcome outcome = Read(&server, &repeats);
    EXPECT_EQ(outcome.status, 200);
    EXPECT_EQ(outcome.body.size(), kMaxResponseBodyBytes);
    EXPECT_LT(repeats * filler.size(), kMaxInFlightBytes);
  }
}

TEST_F(EndlessAnswer, EndlessHeadersAreAnErrorBeforeTheyFillTheMemory) {
  const std::string filler(kKibibyte, 'h');
  const std::string header = "X-Filler: " + filler + "\r\n";
  const struct {
    const char* what;
    std::string start;
    std::string again;
  } kCases[] = {
      {"headers", "HTTP/1.1 200 X\r\n", header},
      {"one header", "HTTP/1.1 200 X\r\nX-Long: ", filler},
      {"interim answers", "", "HTTP/1.1 103 Early Hints\r\n" + header + "\r\n"},
      {"trailers", std::string(kChunked) + "0\r\n", header},
      {"one trailer", std::string(kChunked) + "0\r\nX-Long: ", filler},
  };
  for (const auto& test : kCases) {
    EndlessServer server(test.start, test.again);
    size_t repeats = 0;
    const Outcome outcome = Read(&server, &repeats);
    EXPECT_EQ(outcome.status, 0) << test.what;
    EXPECT_NE(outcome.error_code, Code(CURLE_OPERATION_TIMEDOUT)) << test.what;
    EXPECT_LT(repeats * test.again.size(), kMaxInFlightBytes) << test.what;
    EXPECT_EQ(outcome.error_message.find("hhh"), std::string::npos) << outcome.error_message;
  }
}

TEST_F(EndlessAnswer, HeadersOfUsualSizesAreAccepted) {
  const std::string headers = "X-Filler: " + std::string(32 * kKibibyte, 'h') + "\r\n";
  server_.Reply("HTTP/1.1 200 X\r\n" + headers + headers + "Content-Length: 2\r\n\r\n{}");
  EXPECT_EQ(Exchange(server_.Url()).body, "{}");
}

// The timeout is for the whole request, however much arrives in the meantime.
TEST_F(EndlessAnswer, ATricklingResponseDoesNotExtendTheTimeout) {
  constexpr auto kPause = std::chrono::milliseconds(1);
  transport_->SetDefaultTimeout(base::TimeDelta::FromMilliseconds(250));
  for (const std::string& start :
       {std::string("HTTP/1.1 200 "), std::string("HTTP/1.1 200 X\r\nX-Slow: "),
        std::string("HTTP/1.1 200 X\r\nContent-Length: 1000000\r\n\r\n"),
        std::string("HTTP/1.1 200 X\r\n\r\n"),
        std::string(kChunked) + "1;extension=", std::string(kChunked) + "ffff\r\n"}) {
    EndlessServer server(start, "T", kPause);
    size_t repeats = 0;
    const Outcome outcome = Read(&server, &repeats);
    EXPECT_EQ(outcome.error_code, Code(CURLE_OPERATION_TIMEDOUT))
        << start << ": " << outcome.error_message;
    EXPECT_GT(repeats, 1u) << start;
  }
}

}  // namespace
}  // namespace kestle::http
