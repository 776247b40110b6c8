#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kestle/http/testing/scripted_server.h"
#include "kestle/http/testing/tls_fixture.h"

namespace kestle::http {
namespace {

INSTANTIATE_TEST_SUITE_P(Layouts, TlsTest, testing::ValuesIn(kLayouts), &NameOfLayout);

TEST_P(TlsTest, SendsToAServerCertifiedByASystemCa) {
  const TlsFront front(server_, "good");
  server_.Reply(HttpReply(200, "over TLS"));
  EXPECT_EQ(Probe(front.Url()), "200 over TLS\n");
  EXPECT_EQ(server_.requests().at(0).body, "{}");
}

TEST_P(TlsTest, ReusesATlsConnectionForTheNextRequest) {
  const TlsFront front(server_, "good");
  server_.Reply(HttpReply(200, "one"));
  server_.Reply(HttpReply(200, "two"));
  EXPECT_EQ(Probe({front.Url(), front.Url()}), "200 one\n200 two\n");
  EXPECT_EQ(server_.requests().at(1).connection, 1);
}

// These bytes may be in the TLS library's buffer by then, where polling the socket does not show
// them.
TEST_P(TlsTest, BytesAfterAResponseAreNotTheNextResponse) {
  constexpr size_t kTlsRecordBytes = 16384;
  const size_t head_bytes =
      HttpReply(200, std::string(kTlsRecordBytes, 'b')).size() - kTlsRecordBytes;
  for (const size_t size : {size_t{3}, kTlsRecordBytes - head_bytes, kTlsRecordBytes + 3000}) {
    ScriptedServer server;
    const TlsFront front(server, "good");
    const std::string body(size, 'b');
    server.Reply(HttpReply(200, body) + HttpReply(200, "unasked for"));
    server.Reply(HttpReply(200, "two"));
    EXPECT_EQ(Probe({front.Url(), front.Url()}), "200 " + body + "\n200 two\n");
  }
}

TEST_P(TlsTest, ResumesTheSessionOfAClosedConnection) {
  // With GnuTLS, libcurl does not resume sessions of TLS 1.3.
  for (const std::string& option : UsesGnuTls()
                                       ? std::vector<std::string>{"resume,max=1.2"}
                                       : std::vector<std::string>{"resume,max=1.2", "resume"}) {
    ScriptedServer server;
    const TlsFront front(server, "good", option);
    server.Reply(HttpReply(200, "one"), ScriptedServer::After::kClose);
    server.Reply(HttpReply(200, "two"), ScriptedServer::After::kClose);
    EXPECT_EQ(Probe({front.Url(), front.Url()}), "200 one\n200 two\n") << option;
    EXPECT_EQ(server.requests().at(1).connection, 2);
  }
}

TEST_P(TlsTest, RejectsACertificateForAnotherName) {
  const TlsFront front(server_, "other");
  const std::string output = Probe({front.Url(), front.Url("localhost")});
  EXPECT_EQ(output.find("error 60 "), 0u) << output;
  EXPECT_NE(output.find("\nerror 60 "), std::string::npos) << output;
  EXPECT_NE(output.find("certificate subject name"), std::string::npos);
  EXPECT_TRUE(server_.requests().empty());
}

TEST_P(TlsTest, RejectsAnExpiredCertificate) {
  const TlsFront front(server_, "expired");
  const std::string output = Probe(front.Url());
  EXPECT_EQ(output.find("error 60 "), 0u) << output;
  EXPECT_NE(output.find(UsesGnuTls() ? "certificate" : "expired"), std::string::npos) << output;
  EXPECT_TRUE(server_.requests().empty());
}

// Revocation is not checked, but GnuTLS requires the OCSP response that such a certificate
// promises.
TEST_P(TlsTest, OnlyGnuTlsRejectsAMustStapleCertificate) {
  const TlsFront front(server_, "staple");
  server_.Reply(HttpReply(200, "unproven"));
  const std::string output = Probe(front.Url());
  if (UsesGnuTls()) {
    EXPECT_EQ(output.find("error 60 "), 0u) << output;
  } else {
    EXPECT_EQ(output, "200 unproven\n");
  }
}

TEST_P(TlsTest, RejectsAnUntrustedCertificate) {
  const TlsFront self_signed(server_, "self");
  const TlsFront of_a_stranger(server_, "good");
  for (const TlsFront* front : {&self_signed, &of_a_stranger}) {
    const std::string output = Probe({cas_.SetTo({"spare"}), front->Url(), front->Url()});
    EXPECT_EQ(output.find("error 60 "), 0u) << output;
    EXPECT_NE(output.find("\nerror 60 "), std::string::npos) << output;
    EXPECT_EQ(output.find("secret"), std::string::npos) << output;
  }
  EXPECT_TRUE(server_.requests().empty());
}

TEST_P(TlsTest, RejectsTlsOlderThan12) {
  const TlsFront old(server_, "good", "max=1.1");
  const std::string output = Probe(old.Url());
  EXPECT_EQ(output.find("error 35 "), 0u) << output;
  EXPECT_TRUE(server_.requests().empty());

  const TlsFront oldest_allowed(server_, "good", "max=1.2");
  server_.Reply(HttpReply(200, ""));
  EXPECT_EQ(Probe(oldest_allowed.Url()), "200 \n");
}

TEST_P(TlsTest, UsesHttp11EvenIfTheServerPrefersHttp2) {
  const TlsFront front(server_, "good", "alpn=h2");
  server_.Reply(HttpReply(200, "by HTTP/1.1"));
  EXPECT_EQ(Probe(front.Url()), "200 by HTTP/1.1\n");
  EXPECT_TRUE(server_.requests().at(0).HasLine("POST / HTTP/1.1"));
}

TEST_P(TlsTest, ATruncatedTlsConnectionIsAnError) {
  const TlsFront front(server_, "good", "cut");
  server_.Reply("HTTP/1.1 200 X\r\nContent-Length: 100\r\n\r\nhalf", ScriptedServer::After::kClose);
  server_.Reply(HttpReply(200, "next"), ScriptedServer::After::kClose);
  const std::string output = Probe({front.Url(), front.Url()});
  EXPECT_EQ(output.find("error "), 0u) << output;
  EXPECT_EQ(output.find("secret"), std::string::npos) << output;
  EXPECT_NE(output.find("\n200 next\n"), std::string::npos) << output;
}

// An attacker may have ended the connection, which not every TLS backend of libcurl detects.
TEST_P(TlsTest, AResponseOfUnknownLengthOverTlsIsAnError) {
  for (const char* option : {"cut", ""}) {
    for (const char* reply :
         {"HTTP/1.1 200 X\r\n\r\n", "HTTP/1.1 200 X\r\n\r\nbody", "HTTP/1.0 401 X\r\n\r\nbody"}) {
      const TlsFront front(server_, "good", option);
      server_.Reply(reply, ScriptedServer::After::kClose);
      const std::string output = Probe(front.Url());
      EXPECT_EQ(output.find("error "), 0u) << output;
    }
  }
}

TEST_P(TlsTest, ACompleteResponseMayBeFollowedByAnAbruptClose) {
  for (const char* reply :
       {"HTTP/1.1 200 X\r\nContent-Length: 4\r\n\r\nbody",
        "HTTP/1.1 200 X\r\nTransfer-Encoding: Chunked\r\n\r\n4\r\nbody\r\n0\r\n\r\n"}) {
    const TlsFront front(server_, "good", "cut");
    server_.Reply(reply, ScriptedServer::After::kClose);
    EXPECT_EQ(Probe(front.Url()), "200 body\n");
  }
  for (const std::string status : {"204", "304"}) {
    const TlsFront front(server_, "good", "cut");
    server_.Reply("HTTP/1.1 " + status + " X\r\n\r\n", ScriptedServer::After::kClose);
    EXPECT_EQ(Probe(front.Url()), status + " \n");
  }
}

}  // namespace
}  // namespace kestle::http
