// Where requests may be sent: to https URLs with a host and, in plaintext, to loopback addresses
// only.
#pragma once

#include <string>

#include "kestle/error.h"

namespace kestle::http {

// False, with an entry in `error`, when requests may not be sent to `url`. The message gives the
// reason and what to use instead; it quotes the URL's scheme and host only, since the rest may
// contain a secret.
[[nodiscard]] bool IsSendableUrl(const std::string& url, ErrorPtr* error);

}  // namespace kestle::http
