#include "pelmorctl/cloud_checks.h"

#include <memory>
#include <optional>

#include "pelmorctl/wait.h"

namespace pelmorctl {

namespace {

// The same as the daemon's.
constexpr base::TimeDelta kTimeout = base::TimeDelta::FromSeconds(10);
// Longer than the transport's own timeout.
constexpr base::TimeDelta kDeadline = base::TimeDelta::FromSeconds(15);

std::string Advise(const std::string& failure) {
  const auto mentions = [&](const char* word) { return failure.find(word) != std::string::npos; };
  if (mentions("refusing")) return "set an https URL";
  if (mentions("certificate") || mentions("SSL"))
    return "check the server's certificate, this device's CA certificates and its clock";
  if (mentions("resolve")) return "check this device's name servers, and the URL";
  return "check this device's network and firewall, and whether the server is up";
}

}  // namespace

std::string OriginOf(const std::string& url) {
  const size_t scheme_end = url.find("://");
  if (scheme_end == std::string::npos) return "a bad URL";
  const size_t host = scheme_end + 3;
  const std::string authority = url.substr(host, url.find_first_of("/?#", host) - host);
  if (authority.find('@') != std::string::npos) return "a URL with credentials";
  return url.substr(0, host) + authority;
}

Condition CheckReachable(const std::string& name, const std::string& url,
                         kestle::http::Transport* transport) {
  transport->SetDefaultTimeout(kTimeout);
  // Shared, because a callback may run after the deadline.
  const auto outcome = std::make_shared<std::optional<Condition>>();
  const std::string origin = OriginOf(url);
  transport->Send(
      {url, {}, ""},
      [=](kestle::http::RequestID, std::unique_ptr<kestle::http::Response> response) {
        *outcome = Condition::Pass(
            name, origin + " answers (HTTP " + std::to_string(response->GetStatusCode()) + ")");
      },
      [=](kestle::http::RequestID, const kestle::Error* error) {
        *outcome = Condition::Fail(name, origin + " can't be reached: " + error->GetMessage(),
                                   Advise(error->GetMessage()));
      });
  if (WaitUntil([=] { return outcome->has_value(); }, kDeadline)) return **outcome;
  return Condition::Fail(name, origin + " can't be reached: no answer", Advise(""));
}

}  // namespace pelmorctl
