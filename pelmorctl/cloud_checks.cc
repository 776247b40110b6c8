#include "pelmorctl/cloud_checks.h"

#include <memory>
#include <optional>

#include "pelmorctl/wait.h"

namespace pelmorctl {

namespace {

// As the daemon has it.
constexpr base::TimeDelta kTimeout = base::TimeDelta::FromSeconds(10);
// The transport's own time-out comes first.
constexpr base::TimeDelta kDeadline = base::TimeDelta::FromSeconds(15);

std::string Advise(const std::string& failure) {
  const auto tells = [&](const char* what) { return failure.find(what) != std::string::npos; };
  if (tells("refusing")) return "set an https URL";
  if (tells("certificate") || tells("SSL"))
    return "see the server's certificate, this device's CA certificates and its clock";
  if (tells("resolve")) return "see this device's name servers, and whether the URL is right";
  return "see this device's network and firewall, and whether the server is up";
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
  // Shared: an answer that is too late still finds its place.
  const auto outcome = std::make_shared<std::optional<Condition>>();
  const std::string origin = OriginOf(url);
  transport->Send(
      {url, {}, ""},
      [=](kestle::http::RequestID, std::unique_ptr<kestle::http::Response> response) {
        *outcome = Condition::Green(
            name, origin + " answers (HTTP " + std::to_string(response->GetStatusCode()) + ")");
      },
      [=](kestle::http::RequestID, const kestle::Error* error) {
        *outcome = Condition::Red(name, origin + " can't be reached: " + error->GetMessage(),
                                  Advise(error->GetMessage()));
      });
  if (WaitUntil([=] { return outcome->has_value(); }, kDeadline)) return **outcome;
  return Condition::Red(name, origin + " can't be reached: no answer", Advise(""));
}

}  // namespace pelmorctl
