// The rule of `kestle/http/sendable_url.h`, for what speaks libcurl.
//
// The decision is taken on the URL as libcurl has parsed it, and libcurl is given that same parsed
// URL, so that the two can't read a URL differently.
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

// Null when requests may not be sent to `url`; `refusal` as for `IsSendableUrl`, but never null.
ParsedUrl ParseSendableUrl(const std::string& url, std::string* refusal);

// Whether what is sent to this URL travels in clear.
bool IsInClear(CURLU* url);

}  // namespace kestle::http
