// A fixture for tests over TLS: servers with certificates of a test's CA, and a client in a sandbox
// whose system CAs are the test's, once for each way in which a system has them.
#pragma once

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

#include "kestle/http/testing/scripted_server.h"
#include "kestle/http/testing/transport_fixture.h"

namespace kestle::http {

// The path of a certificate that is made for the tests: "ca.pem" issued "good.pem" and the others.
std::string CertificatePath(const std::string& file);

// The TLS front of a server, in its own process.
class TlsFront {
 public:
  TlsFront(const ScriptedServer& server, const std::string& certificate,
           const std::string& option = "");
  ~TlsFront();
  TlsFront(const TlsFront&) = delete;
  TlsFront& operator=(const TlsFront&) = delete;

  [[nodiscard]] std::string Url(const std::string& host = "127.0.0.1") const {
    return "https://" + host + ":" + std::to_string(port_) + "/";
  }

 private:
  void Start(int output, const std::string& port, const std::string& certificate,
             const std::string& option);

  pid_t pid_ = -1;
  int port_ = 0;
};

// Only a bundle, or also a folder with a link to each CA by its hash.
enum class Layout { kBundle, kFolder };
inline constexpr Layout kLayouts[] = {Layout::kBundle, Layout::kFolder};

inline std::string NameOfLayout(const testing::TestParamInfo<Layout>& layout) {
  return layout.param == Layout::kBundle ? "Bundle" : "Folder";
}

// The CAs of a sandbox; at first the test's CA and another.
class SystemCas {
 public:
  explicit SystemCas(Layout layout);
  ~SystemCas();
  SystemCas(const SystemCas&) = delete;
  SystemCas& operator=(const SystemCas&) = delete;

  // Takes these steps in the sandbox: a URL is sent to, and "!<command>" is run by the shell.
  // Returns a line for each URL.
  [[nodiscard]] std::string Probe(const std::vector<std::string>& steps) const;
  // The step that replaces the CAs.
  [[nodiscard]] std::string SetTo(const std::vector<std::string>& names) const;
  // The path, outside of the sandbox, of a file in the folder of the CAs.
  [[nodiscard]] std::string Path(const std::string& file) const { return folder_ + "/" + file; }

 private:
  [[nodiscard]] std::string SetCommand(const std::vector<std::string>& names,
                                       const std::string& folder) const;

  const Layout layout_;
  std::string folder_;
};

class TlsTest : public TransportTest, public testing::WithParamInterface<Layout> {
 protected:
  [[nodiscard]] std::string Probe(const std::string& url) const { return cas_.Probe({url}); }
  [[nodiscard]] std::string Probe(const std::vector<std::string>& steps) const {
    return cas_.Probe(steps);
  }

  const SystemCas cas_{GetParam()};
};

inline bool UsesGnuTls() {
  return std::string_view(curl_version_info(CURLVERSION_NOW)->ssl_version).starts_with("GnuTLS");
}

}  // namespace kestle::http
