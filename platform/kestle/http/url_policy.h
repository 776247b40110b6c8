// The rule of `kestle/http/sendable_url.h` for code that uses libcurl.
//
// The decision is made on the URL as parsed by libcurl, and libcurl is given the same parsed URL,
// so that both read it alike.
#pragma once

#include <curl/curl.h>

#include <memory>
#include <string>

#include "kestle/http/sendable_url.h"

namespace kestle::http {

struct UrlDeleter {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
using ParsedUrl = std::unique_ptr<CURLU, UrlDeleter>;

// Null, with an entry in `error` as for `IsSendableUrl`, when requests may not be sent to `url`.
[[nodiscard]] ParsedUrl ParseSendableUrl(const std::string& url, ErrorPtr* error);

// Whether requests to this URL are sent in plaintext.
bool IsPlaintext(CURLU* url);

}  // namespace kestle::http
