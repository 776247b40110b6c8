#include "pelmorctl/doctor.h"

#include <string>

#include "ap/common/configuration.h"
#include "ap/common/oauth2_manager.h"
#include "base/time.h"
#include "kestle/http/transport.h"
#include "pelmorctl/account.h"
#include "pelmorctl/bus_checks.h"
#include "pelmorctl/bus_queries.h"
#include "pelmorctl/cloud_checks.h"
#include "pelmorctl/config_check.h"
#include "pelmorctl/local_checks.h"
#include "pelmorctl/status_checks.h"
#include "pelmorctl/wait.h"

namespace pelmorctl {

namespace {

using varelnos::ap::kConfigurationFile;
using varelnos::ap::kOverrideFile;
using varelnos::ap::kRefreshTokenFile;
using varelnos::ap::kReleaseFile;
using varelnos::ap::kStartTimeFolder;
using varelnos::ap::kUrlKey;

// Longer than the daemon's own timeout.
constexpr base::TimeDelta kFirstTokenDeadline = base::TimeDelta::FromSeconds(12);
constexpr base::TimeDelta kFirstTokenPeriod = base::TimeDelta::FromMilliseconds(200);

Condition CheckMonitoringService(const ConfigReport& report, kestle::http::Transport* transport) {
  constexpr char kName[] = "monitoring-service";
  const Setting* const url = report.Find(kUrlKey);
  if (!url)
    return Condition::Fail(kName, std::string("unknown: ") + kUrlKey + " could not be read",
                           "fix the configuration first");
  return CheckReachable(kName, url->value, transport);
}

// Whether the daemon has just started, and its first request for a token has no response yet.
bool AwaitsFirstToken(const StatusFinding& status) {
  return status && status->Text("gates", "refresh_token") == "yes" &&
         status->Text("gates", "access_token") == "no" && !status->Has("token");
}

// Gives a daemon that has just started the time to get its first token.
StatusFinding FindStatus(const BusConnection& bus) {
  const base::TimeTicks end = base::TimeTicks::Now() + kFirstTokenDeadline;
  for (;;) {
    StatusFinding status = ReadDaemonStatus(bus);
    if (!AwaitsFirstToken(status) || base::TimeTicks::Now() >= end) return status;
    Wait(kFirstTokenPeriod);
  }
}

}  // namespace

std::vector<Condition> Examine() {
  const BusConnection bus = ConnectToBus();
  const auto transport = kestle::http::Transport::CreateDefault();
  const StatusFinding status = FindStatus(bus);
  const Account account = DaemonAccount(FindDaemonUser(bus));
  const ConfigReport report = CheckConfigFiles(kConfigurationFile, kOverrideFile, account);
  return {
      CheckBus(bus),
      CheckService(bus),
      CheckConfiguration(report),
      CheckReleaseFile(kReleaseFile, account),
      CheckStartTimeFolder(kStartTimeFolder, account),
      CheckClock(bus),
      CheckRegistration(bus),
      CheckRefreshToken(kRefreshTokenFile, account, AdviseOnCredentials(status)),
      CheckReachable("token-endpoint", varelnos::ap::kTokenEndpointUrl, transport.get()),
      CheckMonitoringService(report, transport.get()),
      CheckAccessToken(status),
      CheckUploads(status),
      CheckRecords(status),
  };
}

}  // namespace pelmorctl
