// The conditions that follow from the daemon's own status: whether its credentials and its records
// are accepted, and whether records were dropped.
#pragma once

#include <string>

#include "base/result.h"
#include "base/time.h"
#include "pelmorctl/condition.h"
#include "pelmorctl/daemon_status.h"

namespace pelmorctl {

// A dropped record fails its condition for this long.
inline constexpr base::TimeDelta kRecentDrop = base::TimeDelta::FromMinutes(60);

using StatusFinding = base::Result<DaemonStatus>;

// What to do for a device without a refresh token.
std::string AdviseOnCredentials(const StatusFinding& status);

Condition CheckAccessToken(const StatusFinding& status);
Condition CheckUploads(const StatusFinding& status);
Condition CheckRecords(const StatusFinding& status);

}  // namespace pelmorctl
