// The one rule on where requests may be sent: to https URLs with a host, and in plaintext to
// loopback addresses alone.
#pragma once

#include <string>

namespace kestle::http {

// When requests may not be sent to `url`, returns false and says in `refusal`, unless that is null,
// why and what to do instead. It names the URL's scheme and host only, since the rest may hold a
// secret.
bool IsSendableUrl(const std::string& url, std::string* refusal);

}  // namespace kestle::http
