#include "kestle/http/url_policy.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>

#include "base/logging.h"

namespace kestle::http {

namespace {

std::string GetPart(CURLU* url, CURLUPart part) {
  char* text = nullptr;
  if (curl_url_get(url, part, &text, 0) != CURLUE_OK) return "";
  const std::unique_ptr<char, decltype(&curl_free)> owned(text, &curl_free);
  return text;
}

// Host names, "localhost" included, do not count: a resolver may map them to any address.
bool IsLoopbackAddress(const std::string& host) {
  in_addr ipv4{};
  if (inet_pton(AF_INET, host.c_str(), &ipv4) == 1)
    return ntohl(ipv4.s_addr) >> IN_CLASSA_NSHIFT == IN_LOOPBACKNET;
  if (host.size() < 2 || host.front() != '[' || host.back() != ']') return false;
  in6_addr ipv6{};
  return inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &ipv6) == 1 &&
         memcmp(&ipv6, &in6addr_loopback, sizeof(ipv6)) == 0;
}

}  // namespace

bool IsPlaintext(CURLU* url) { return GetPart(url, CURLUPART_SCHEME) != "https"; }

ParsedUrl ParseSendableUrl(const std::string& url, ErrorPtr* error) {
  const auto refuse = [error](const std::string& reason) {
    Error::AddTo(error, "http", std::to_string(CURLE_UNSUPPORTED_PROTOCOL),
                 "refusing to send to " + reason);
    return nullptr;
  };
  ParsedUrl parsed(curl_url());
  CHECK(parsed != nullptr);
  // libcurl would ignore everything after a null character.
  const bool whole = url.find('\0') == std::string::npos;
  const CURLUcode result = curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(),
                                        CURLU_NON_SUPPORT_SCHEME | CURLU_DISALLOW_USER);
  if (!whole || result != CURLUE_OK) {
    const std::string reason = whole ? curl_url_strerror(result) : "It contains a null character";
    return refuse("a bad URL (" + reason + "): use https://host/path");
  }
  const std::string scheme = GetPart(parsed.get(), CURLUPART_SCHEME);
  const std::string host = GetPart(parsed.get(), CURLUPART_HOST);
  if (scheme == "https" || (scheme == "http" && IsLoopbackAddress(host))) return parsed;
  return refuse(scheme + "://" + host + (scheme == "http" ? " in clear" : "") + ": use https");
}

bool IsSendableUrl(const std::string& url, ErrorPtr* error) {
  return ParseSendableUrl(url, error) != nullptr;
}

}  // namespace kestle::http
