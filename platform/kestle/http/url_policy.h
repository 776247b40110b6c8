// Where requests may be sent: to https URLs, and in clear to loopback addresses alone.
//
// The decision is taken on the URL as libcurl has parsed it, and libcurl is given that same parsed
// URL, so that the two can't read a URL differently.
#pragma once

#include <curl/curl.h>

#include <memory>
#include <string>

namespace kestle::http {

struct UrlDeleter {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
using ParsedUrl = std::unique_ptr<CURLU, UrlDeleter>;

// Null when no request may go to `url`; `refusal` then tells why and what to do instead. It names
// the URL's scheme and host only, since the rest may hold a secret.
ParsedUrl ParseSendableUrl(const std::string& url, std::string* refusal);

// Whether what is sent to this URL travels in clear.
bool IsInClear(CURLU* url);

}  // namespace kestle::http
