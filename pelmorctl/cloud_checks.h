// The conditions on the servers of the cloud.
#pragma once

#include <string>

#include "kestle/http/transport.h"
#include "pelmorctl/condition.h"

namespace pelmorctl {

// Scheme, host and port. The rest of a URL may contain credentials and is not shown.
std::string OriginOf(const std::string& url);

// Passes if a server gives any response to an empty POST without credentials, over the daemon's
// transport. Runs the current message loop meanwhile.
Condition CheckReachable(const std::string& name, const std::string& url,
                         kestle::http::Transport* transport);

}  // namespace pelmorctl
