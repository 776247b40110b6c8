// Which CAs are trusted, and that changes of them are followed.
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <string>

#include "base/scoped_fd.h"
#include "kestle/http/testing/scripted_server.h"
#include "kestle/http/testing/tls_fixture.h"

namespace kestle::http {
namespace {

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

// As after the replacement of a CA by one with another subject.
constexpr const char* kWrongHashes =
    "!cd /etc/ssl/certs; n=0; for f in *.0; do mv -f $f 0000000$n.0 2>/dev/null; n=$((n + 1)); "
    "done";

class TrustTest : public TlsTest {};

INSTANTIATE_TEST_SUITE_P(Layouts, TrustTest, testing::ValuesIn(kLayouts), &NameOfLayout);

// Debian's libcurl with GnuTLS was built without one, and trusts what is in any file of the folder.
bool HasBundle() { return curl_version_info(CURLVERSION_NOW)->cainfo != nullptr; }

// Later versions of libcurl always read both bundle and folder, and cache nothing.
bool ReadsOnlyWhatItIsGiven() {
  constexpr unsigned kFirstUnknownVersion = 0x080f00;
  return !UsesGnuTls() && curl_version_info(CURLVERSION_NOW)->version_num < kFirstUnknownVersion;
}

TEST_P(TrustTest, ReadsTheCaBundleOnceForManyConnections) {
  const TlsFront front(server_, "good");
  const TlsFront another(server_, "good");
  OpenCount reads(cas_.Path("ca-certificates.crt"));
  server_.Reply(HttpReply(200, "one"));
  server_.Reply(HttpReply(200, "two"));
  EXPECT_EQ(Probe({front.Url(), another.Url()}), "200 one\n200 two\n");
  if (ReadsOnlyWhatItIsGiven()) {
    EXPECT_EQ(reads.Take(), 1);
  } else {
    EXPECT_LE(reads.Take(), 3);
  }
}

class FolderTest : public TransportTest {};

// Once to compare it with the bundle, and once for the connection.
TEST_F(FolderTest, OnlyTheCaOfTheServerIsReadAgainForAConnection) {
  if (!ReadsOnlyWhatItIsGiven()) GTEST_SKIP() << "This libcurl always reads all CAs";
  const SystemCas cas(Layout::kFolder);
  const TlsFront front(server_, "good");
  OpenCount necessary(cas.Path("ca.pem"));
  OpenCount other(cas.Path("spare.pem"));
  server_.Reply(HttpReply(200, "one"));
  EXPECT_EQ(cas.Probe({front.Url()}), "200 one\n");
  EXPECT_EQ(necessary.Take(), 2);
  EXPECT_EQ(other.Take(), 1);
}

TEST_P(TrustTest, AnAddedCaIsTrustedFromTheNextRequestOn) {
  const TlsFront front(server_, "good");
  server_.Reply(HttpReply(200, "added"));
  const std::string output =
      Probe({cas_.SetTo({"spare"}), front.Url(), cas_.SetTo({"spare", "ca"}), front.Url()});
  EXPECT_EQ(output.find("error 60 "), 0u) << output;
  EXPECT_NE(output.find("\n200 added\n"), std::string::npos) << output;
}

// Neither an open connection nor a TLS session is used any more.
TEST_P(TrustTest, ARemovedCaIsNotTrustedFromTheNextRequestOn) {
  for (const auto after : {ScriptedServer::After::kKeepOpen, ScriptedServer::After::kClose}) {
    ScriptedServer server;
    const TlsFront front(server, "good");
    server.Reply(HttpReply(200, "trusted"), after);
    const std::string output =
        Probe({cas_.SetTo({"ca", "spare"}), front.Url(), cas_.SetTo({"spare"}), front.Url()});
    EXPECT_EQ(output.find("200 trusted\nerror 60 "), 0u) << output;
    EXPECT_EQ(server.requests().size(), 1u);
  }
}

TEST_P(TrustTest, ACaOfTheBundleIsTrustedWithoutALink) {
  const TlsFront front(server_, "good");
  for (const char* change :
       {"!rm -f /etc/ssl/certs/*.0", "!rm -f /etc/ssl/certs/ca.pem", kWrongHashes}) {
    const SystemCas cas(GetParam());
    for (const char* body : {"one", "two", "three"}) server_.Reply(HttpReply(200, body));
    EXPECT_EQ(cas.Probe({change, front.Url(), cas.SetTo({"ca", "spare"}), front.Url(), change,
                         front.Url()}),
              "200 one\n200 two\n200 three\n")
        << change;
  }
}

// A second connection, for the bundle, has what the first has left.
TEST_F(FolderTest, TheTimeoutIncludesAConnectionForWhichTheFolderLacksTheCa) {
  if (!ReadsOnlyWhatItIsGiven()) GTEST_SKIP() << "This libcurl always reads all CAs";
  const SystemCas cas(Layout::kFolder);
  const TlsFront front(server_, "good", "slow=0.3");
  server_.Reply(HttpReply(200, "in 0.6 seconds"));
  EXPECT_EQ(cas.Probe({kWrongHashes, "timeout=500", front.Url()}),
            "error 28 Connection timed out after 500 milliseconds\n");
}

TEST_P(TrustTest, ACaThatIsOnlyInTheFolderIsNotTrusted) {
  const TlsFront front(server_, "good");
  const std::string spare = CertificatePath("spare.pem");
  const bool reads_folder = !HasBundle() || (!UsesGnuTls() && !ReadsOnlyWhatItIsGiven());
  if (reads_folder) server_.Reply(HttpReply(200, ""));
  const std::string output =
      Probe({"!cat " + spare + " >/etc/ssl/certs/ca-certificates.crt", front.Url()});
  const bool folder_decides = reads_folder && GetParam() == Layout::kFolder;
  EXPECT_EQ(output.find(folder_decides ? "200 " : "error 60 "), 0u) << output;
}

TEST_P(TrustTest, TheEnvironmentOfOpenSslAddsNoCa) {
  const TlsFront front(server_, "good");
  setenv("SSL_CERT_FILE", CertificatePath("ca.pem").c_str(), 1);
  const SystemCas trusting(Layout::kFolder);
  setenv("SSL_CERT_DIR", trusting.Path("").c_str(), 1);
  const std::string output = Probe({cas_.SetTo({"spare"}), front.Url()});
  unsetenv("SSL_CERT_FILE");
  unsetenv("SSL_CERT_DIR");
  EXPECT_EQ(output.find("error 60 "), 0u) << output;
}

}  // namespace
}  // namespace kestle::http
