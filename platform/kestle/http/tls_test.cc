#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "base/scoped_fd.h"
#include "kestle/http/testing/scripted_server.h"
#include "kestle/http/testing/transport_fixture.h"

namespace kestle::http {
namespace {

namespace fs = std::filesystem;

// Runs a shell command and returns its output; fails the test if the command fails.
std::string Run(const std::string& command) {
  FILE* const pipe = popen(command.c_str(), "r");
  std::string output;
  char chunk[4096];
  while (const size_t count = fread(chunk, 1, sizeof(chunk), pipe)) output.append(chunk, count);
  EXPECT_EQ(pclose(pipe), 0) << command << "\n" << output;
  return output;
}

// A CA and certificates from it, and a system-wide OpenSSL configuration that allows old TLS, in a
// folder that is removed at the end of the test program.
class Certificates {
 public:
  static const Certificates& Get() {
    static const Certificates certificates;
    return certificates;
  }
  ~Certificates() { fs::remove_all(folder_); }

  [[nodiscard]] std::string Path(const std::string& file) const { return folder_ + "/" + file; }

 private:
  Certificates() {
    std::string pattern = (fs::temp_directory_path() / "tls.XXXXXX").string();
    folder_ = mkdtemp(pattern.data());
    const std::string self_signed = "req -x509 -days 2 " + NewKey("ca") + " -subj '/CN=Test CA'";
    OpenSsl(self_signed + " -addext basicConstraints=critical,CA:TRUE");
    WriteCaConfiguration();
    Issue("good", "IP:127.0.0.1,DNS:localhost", "-days 2");
    Issue("other", "IP:127.0.0.2,DNS:other.example", "-days 2");
    Issue("expired", "IP:127.0.0.1", "-startdate 20240101000000Z -enddate 20240102000000Z");
    Issue("staple", "IP:127.0.0.1 -addext tlsfeature=status_request", "-days 2");
    OpenSsl("req -x509 -days 2 " + NewKey("self") +
            " -subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1");
    std::ofstream(Path("lax.cnf")) << "openssl_conf = conf\n[conf]\nssl_conf = ssl\n"
                                      "[ssl]\nsystem_default = lax\n"
                                      "[lax]\nMinProtocol = TLSv1\n"
                                      "CipherString = DEFAULT@SECLEVEL=0\n";
  }
  [[nodiscard]] std::string NewKey(const std::string& name) const {
    return "-newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout " + Path(name + ".key") +
           " -out " + Path(name + ".pem");
  }
  void Issue(const std::string& name, const std::string& names, const std::string& validity) const {
    OpenSsl("req " + NewKey(name) + " -subj /CN=server -addext subjectAltName=" + names);
    OpenSsl("ca -batch -notext -config " + Path("ca.cnf") + " -in " + Path(name + ".pem") +
            " -out " + Path(name + ".pem") + " " + validity);
  }
  // In some versions of OpenSSL only the command `ca` issues expired certificates.
  void WriteCaConfiguration() const {
    std::ofstream(Path("ca.db")).flush();
    std::ofstream(Path("ca.cnf"))
        << "[ca]\ndefault_ca = test\n"
        << "[test]\ncertificate = " << Path("ca.pem") << "\nprivate_key = " << Path("ca.key")
        << "\ndatabase = " << Path("ca.db") << "\nnew_certs_dir = " << folder_
        << "\ndefault_md = sha256\npolicy = names\nunique_subject = no\nrand_serial = yes\n"
        << "copy_extensions = copy\n[names]\ncommonName = supplied\n";
  }
  static void OpenSsl(const std::string& arguments) { Run("openssl " + arguments + " 2>&1"); }

  std::string folder_;
};

// The TLS front of a server, in its own process.
class TlsFront {
 public:
  TlsFront(const ScriptedServer& server, const std::string& certificate,
           const std::string& option = "") {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    const base::ScopedFd read_end(ends[0]);
    {
      const base::ScopedFd write_end(ends[1]);
      Start(write_end.get(), std::to_string(server.port()), certificate, option);
    }
    FILE* const output = fdopen(dup(read_end.get()), "r");
    EXPECT_EQ(fscanf(output, "%d", &port_), 1) << "the TLS front did not start";
    fclose(output);
  }
  ~TlsFront() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  TlsFront(const TlsFront&) = delete;
  TlsFront& operator=(const TlsFront&) = delete;

  [[nodiscard]] std::string Url(const std::string& host = "127.0.0.1") const {
    return "https://" + host + ":" + std::to_string(port_) + "/";
  }

 private:
  void Start(int output, const std::string& port, const std::string& certificate,
             const std::string& option) {
    const std::string pem = Certificates::Get().Path(certificate + ".pem");
    const std::string key = Certificates::Get().Path(certificate + ".key");
    pid_ = fork();
    if (pid_ != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(output, STDOUT_FILENO);
    // Hides Python's warnings about old versions of TLS.
    execlp("python3", "python3", "-Wignore", TLS_FRONT, port.c_str(), pem.c_str(), key.c_str(),
           option.c_str(), nullptr);
    _exit(127);
  }

  pid_t pid_ = -1;
  int port_ = 0;
};

// Sends in a sandbox whose system CA is the test's. Returns a line for each URL.
std::string ProbeTrustingTestCa(const std::vector<std::string>& urls) {
  // The lax OpenSSL configuration ensures that the transport is what rejects.
  std::string command = "OPENSSL_CONF=" + Certificates::Get().Path("lax.cnf") +
                        " bwrap --dev-bind / / --ro-bind " + Certificates::Get().Path("ca.pem") +
                        " /etc/ssl/certs/ca-certificates.crt " POST_PROBE;
  for (const std::string& url : urls) command += " " + url;
  return Run(command);
}

std::string ProbeTrustingTestCa(const std::string& url) {
  return ProbeTrustingTestCa(std::vector{url});
}

bool UsesGnuTls() {
  return std::string_view(curl_version_info(CURLVERSION_NOW)->ssl_version).starts_with("GnuTLS");
}

// Counts how often a file is opened.
class OpenCount {
 public:
  // Also watches closing: inotify merges successive equal events.
  explicit OpenCount(const std::string& file) : events_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    EXPECT_GE(inotify_add_watch(events_.get(), file.c_str(), IN_OPEN | IN_CLOSE), 0);
  }
  // Since the previous call.
  [[nodiscard]] ptrdiff_t Take() const {
    std::array<inotify_event, 100> events{};
    const ssize_t size = std::max<ssize_t>(read(events_.get(), events.data(), sizeof(events)), 0);
    // Events of a watched file, unlike those of a folder, have no name appended.
    const auto* const end = events.data() + size / static_cast<ssize_t>(sizeof(inotify_event));
    return std::count_if(static_cast<const inotify_event*>(events.data()), end,
                         [](const inotify_event& event) { return (event.mask & IN_OPEN) != 0; });
  }

 private:
  const base::ScopedFd events_;
};

class TlsTest : public TransportTest {};

TEST_F(TlsTest, SendsToAServerCertifiedByASystemCa) {
  const TlsFront front(server_, "good");
  server_.Reply(HttpReply(200, "over TLS"));
  EXPECT_EQ(ProbeTrustingTestCa(front.Url()), "200 over TLS\n");
  EXPECT_EQ(server_.requests().at(0).body, "{}");
}

TEST_F(TlsTest, ReusesATlsConnectionForTheNextRequest) {
  const TlsFront front(server_, "good");
  server_.Reply(HttpReply(200, "one"));
  server_.Reply(HttpReply(200, "two"));
  EXPECT_EQ(ProbeTrustingTestCa({front.Url(), front.Url()}), "200 one\n200 two\n");
  EXPECT_EQ(server_.requests().at(1).connection, 1);
}

// These bytes may be in the TLS library's buffer by then, where polling the socket does not show
// them.
TEST_F(TlsTest, BytesAfterAResponseAreNotTheNextResponse) {
  constexpr size_t kTlsRecordBytes = 16384;
  const size_t head_bytes =
      HttpReply(200, std::string(kTlsRecordBytes, 'b')).size() - kTlsRecordBytes;
  for (const size_t size : {size_t{3}, kTlsRecordBytes - head_bytes, kTlsRecordBytes + 3000}) {
    ScriptedServer server;
    const TlsFront front(server, "good");
    const std::string body(size, 'b');
    server.Reply(HttpReply(200, body) + HttpReply(200, "unasked for"));
    server.Reply(HttpReply(200, "two"));
    EXPECT_EQ(ProbeTrustingTestCa({front.Url(), front.Url()}), "200 " + body + "\n200 two\n");
  }
}

TEST_F(TlsTest, ResumesTheSessionOfAClosedConnection) {
  // With GnuTLS, libcurl does not resume sessions of TLS 1.3.
  for (const std::string& option : UsesGnuTls()
                                       ? std::vector<std::string>{"resume,max=1.2"}
                                       : std::vector<std::string>{"resume,max=1.2", "resume"}) {
    ScriptedServer server;
    const TlsFront front(server, "good", option);
    server.Reply(HttpReply(200, "one"), ScriptedServer::After::kClose);
    server.Reply(HttpReply(200, "two"), ScriptedServer::After::kClose);
    EXPECT_EQ(ProbeTrustingTestCa({front.Url(), front.Url()}), "200 one\n200 two\n") << option;
    EXPECT_EQ(server.requests().at(1).connection, 2);
  }
}

// With OpenSSL. Later versions of libcurl always read the CA folder too, and then cache nothing.
bool KeepsParsedCas() {
  constexpr unsigned kFirstUnknownVersion = 0x080f00;
  return !UsesGnuTls() && curl_version_info(CURLVERSION_NOW)->version_num < kFirstUnknownVersion;
}

TEST_F(TlsTest, ReadsTheCaBundleOnceForManyConnections) {
  const TlsFront front(server_, "good");
  const TlsFront another(server_, "good");
  OpenCount reads(Certificates::Get().Path("ca.pem"));
  server_.Reply(HttpReply(200, "one"));
  EXPECT_EQ(ProbeTrustingTestCa(front.Url()), "200 one\n");
  EXPECT_EQ(reads.Take(), 1);
  server_.Reply(HttpReply(200, "two"));
  server_.Reply(HttpReply(200, "three"));
  EXPECT_EQ(ProbeTrustingTestCa({front.Url(), another.Url()}), "200 two\n200 three\n");
  if (KeepsParsedCas()) {
    EXPECT_EQ(reads.Take(), 1);
  } else {
    EXPECT_LE(reads.Take(), 2);
  }
}

TEST_F(TlsTest, RejectsACertificateForAnotherName) {
  const TlsFront front(server_, "other");
  const std::string output = ProbeTrustingTestCa({front.Url(), front.Url("localhost")});
  EXPECT_EQ(output.find("error 60 "), 0u) << output;
  EXPECT_NE(output.find("\nerror 60 "), std::string::npos) << output;
  EXPECT_NE(output.find("certificate subject name"), std::string::npos);
  EXPECT_TRUE(server_.requests().empty());
}

TEST_F(TlsTest, RejectsAnExpiredCertificate) {
  const TlsFront front(server_, "expired");
  const std::string output = ProbeTrustingTestCa(front.Url());
  EXPECT_EQ(output.find("error 60 "), 0u) << output;
  EXPECT_NE(output.find(UsesGnuTls() ? "certificate" : "expired"), std::string::npos) << output;
  EXPECT_TRUE(server_.requests().empty());
}

// Revocation is not checked, but GnuTLS requires the OCSP response that such a certificate
// promises.
TEST_F(TlsTest, OnlyGnuTlsRejectsAMustStapleCertificate) {
  const TlsFront front(server_, "staple");
  server_.Reply(HttpReply(200, "unproven"));
  const std::string output = ProbeTrustingTestCa(front.Url());
  if (UsesGnuTls()) {
    EXPECT_EQ(output.find("error 60 "), 0u) << output;
  } else {
    EXPECT_EQ(output, "200 unproven\n");
  }
}

TEST_F(TlsTest, RejectsAnUntrustedCertificate) {
  for (const char* certificate : {"self", "good"}) {
    const TlsFront front(server_, certificate);
    const Outcome outcome = Exchange(front.Url(), {{"Authorization", "Bearer secret"}});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.error_domain, "http");
    EXPECT_EQ(outcome.error_code, "60") << outcome.error_message;
    EXPECT_EQ(outcome.error_message.find("secret"), std::string::npos);
  }
  EXPECT_TRUE(server_.requests().empty());
}

TEST_F(TlsTest, RejectsTlsOlderThan12) {
  const TlsFront old(server_, "good", "max=1.1");
  const std::string output = ProbeTrustingTestCa(old.Url());
  EXPECT_EQ(output.find("error 35 "), 0u) << output;
  EXPECT_TRUE(server_.requests().empty());

  const TlsFront oldest_allowed(server_, "good", "max=1.2");
  server_.Reply(HttpReply(200, ""));
  EXPECT_EQ(ProbeTrustingTestCa(oldest_allowed.Url()), "200 \n");
}

TEST_F(TlsTest, UsesHttp11EvenIfTheServerPrefersHttp2) {
  const TlsFront front(server_, "good", "alpn=h2");
  server_.Reply(HttpReply(200, "by HTTP/1.1"));
  EXPECT_EQ(ProbeTrustingTestCa(front.Url()), "200 by HTTP/1.1\n");
  EXPECT_TRUE(server_.requests().at(0).HasLine("POST / HTTP/1.1"));
}

TEST_F(TlsTest, ATruncatedTlsConnectionIsAnError) {
  const TlsFront front(server_, "good", "cut");
  server_.Reply("HTTP/1.1 200 X\r\nContent-Length: 100\r\n\r\nhalf", ScriptedServer::After::kClose);
  server_.Reply(HttpReply(200, "next"), ScriptedServer::After::kClose);
  const std::string output = ProbeTrustingTestCa({front.Url(), front.Url()});
  EXPECT_EQ(output.find("error "), 0u) << output;
  EXPECT_EQ(output.find("secret"), std::string::npos) << output;
  EXPECT_NE(output.find("\n200 next\n"), std::string::npos) << output;
}

// An attacker may have ended the connection, which not every TLS backend of libcurl detects.
TEST_F(TlsTest, AResponseOfUnknownLengthOverTlsIsAnError) {
  for (const char* option : {"cut", ""}) {
    for (const char* reply :
         {"HTTP/1.1 200 X\r\n\r\n", "HTTP/1.1 200 X\r\n\r\nbody", "HTTP/1.0 401 X\r\n\r\nbody"}) {
      const TlsFront front(server_, "good", option);
      server_.Reply(reply, ScriptedServer::After::kClose);
      const std::string output = ProbeTrustingTestCa(front.Url());
      EXPECT_EQ(output.find("error "), 0u) << output;
    }
  }
}

TEST_F(TlsTest, ACompleteResponseMayBeFollowedByAnAbruptClose) {
  for (const char* reply :
       {"HTTP/1.1 200 X\r\nContent-Length: 4\r\n\r\nbody",
        "HTTP/1.1 200 X\r\nTransfer-Encoding: Chunked\r\n\r\n4\r\nbody\r\n0\r\n\r\n"}) {
    const TlsFront front(server_, "good", "cut");
    server_.Reply(reply, ScriptedServer::After::kClose);
    EXPECT_EQ(ProbeTrustingTestCa(front.Url()), "200 body\n");
  }
  for (const std::string status : {"204", "304"}) {
    const TlsFront front(server_, "good", "cut");
    server_.Reply("HTTP/1.1 " + status + " X\r\n\r\n", ScriptedServer::After::kClose);
    EXPECT_EQ(ProbeTrustingTestCa(front.Url()), status + " \n");
  }
}

}  // namespace
}  // namespace kestle::http
