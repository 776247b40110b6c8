// The conditions that the daemon's own status shows: whether its credentials and its records are
// accepted, and whether records were dropped.
#pragma once

#include <optional>
#include <string>

#include "base/time.h"
#include "pelmorctl/condition.h"
#include "pelmorctl/daemon_status.h"

namespace pelmorctl {

// A dropped record is a fault for so long.
inline constexpr base::TimeDelta kRecentDrop = base::TimeDelta::FromMinutes(60);

struct StatusFinding {
  std::optional<DaemonStatus> status;
  std::string why_not;  // When there is none.
};

// What to do for a device without a refresh token.
std::string AdviseOnCredentials(const StatusFinding& finding);

Condition CheckAccessToken(const StatusFinding& finding);
Condition CheckUploads(const StatusFinding& finding);
Condition CheckRecords(const StatusFinding& finding);

}  // namespace pelmorctl
