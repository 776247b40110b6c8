// The conditions on the servers of the cloud.
#pragma once

#include <string>

#include "kestle/http/transport.h"
#include "pelmorctl/condition.h"

namespace pelmorctl {

// Scheme, host and port: what may be shown of a URL.
std::string OriginOf(const std::string& url);

// Whether a server answers at the URL, over the daemon's own rules for connections, whatever it
// answers to an empty POST without credentials. Turns the current message loop meanwhile.
Condition CheckReachable(const std::string& name, const std::string& url,
                         kestle::http::Transport* transport);

}  // namespace pelmorctl
