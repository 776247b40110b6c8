#include "pelmorctl/doctor.h"

#include <string>

#include "ap/common/configuration.h"
#include "ap/common/oauth2_manager.h"
#include "base/time.h"
#include "kestle/http/transport.h"
#include "pelmorctl/account.h"
#include "pelmorctl/arguments.h"
#include "pelmorctl/bus_checks.h"
#include "pelmorctl/cloud_checks.h"
#include "pelmorctl/config_check.h"
#include "pelmorctl/local_checks.h"
#include "pelmorctl/status_checks.h"
#include "pelmorctl/status_source.h"
#include "pelmorctl/wait.h"

namespace pelmorctl {

namespace {

using varelnos::ap::kConfigurationFile;
using varelnos::ap::kOverrideFile;
using varelnos::ap::kRefreshTokenFile;
using varelnos::ap::kReleaseFile;
using varelnos::ap::kUrlKey;

constexpr char kStartTimeFolder[] = "/tmp/ap/pelmor";
// A little longer than the daemon waits for the response.
constexpr base::TimeDelta kFirstTokenDeadline = base::TimeDelta::FromSeconds(12);
constexpr base::TimeDelta kFirstTokenPeriod = base::TimeDelta::FromMilliseconds(200);

Condition CheckMonitoringService(const ConfigReport& report, kestle::http::Transport* transport) {
  constexpr char kName[] = "monitoring-service";
  const Setting* const url = report.Find(kUrlKey);
  if (!url)
    return Condition::Red(kName, std::string("unknown: ") + kUrlKey + " could not be read",
                          "mend the configuration first");
  return CheckReachable(kName, url->value, transport);
}

// Whether the daemon has just started, and its first request for a token has no response yet.
bool AwaitsFirstToken(const StatusFinding& finding) {
  return finding.status && finding.status->Text("gates", "refresh_token") == "yes" &&
         finding.status->Text("gates", "access_token") == "no" && !finding.status->Has("token");
}

// What a daemon shows that has just started is no finding yet.
StatusFinding FindStatus(const scoped_refptr<dbus::Bus>& bus) {
  StatusFinding finding;
  const base::TimeTicks end = base::TimeTicks::Now() + kFirstTokenDeadline;
  do {
    finding.status = AskForStatus(bus, &finding.why_not);
    if (!AwaitsFirstToken(finding)) break;
    WaitUntil([] { return false; }, kFirstTokenPeriod);
  } while (base::TimeTicks::Now() < end);
  return finding;
}

}  // namespace

std::vector<Condition> Examine() {
  kestle::ErrorPtr error;
  const scoped_refptr<dbus::Bus> bus = dbus::Bus::ConnectToSystemBus(&error);
  const auto transport = kestle::http::Transport::CreateDefault();
  const StatusFinding finding = FindStatus(bus);
  const Account account = DaemonAccount(FindDaemonUser(bus));
  const ConfigReport report = CheckConfigFiles(kConfigurationFile, kOverrideFile, account);
  std::vector<Condition> conditions;
  conditions.push_back(CheckBus(bus, bus ? "" : error->GetMessage()));
  conditions.push_back(CheckService(bus));
  conditions.push_back(CheckConfiguration(report));
  conditions.push_back(CheckReleaseFile(kReleaseFile, account));
  conditions.push_back(CheckStartTimeFolder(kStartTimeFolder, account));
  conditions.push_back(CheckClock(bus));
  conditions.push_back(CheckRegistration(bus));
  conditions.push_back(CheckRefreshToken(kRefreshTokenFile, account, AdviseOnCredentials(finding)));
  conditions.push_back(
      CheckReachable("token-endpoint", varelnos::ap::kTokenEndpointUrl, transport.get()));
  conditions.push_back(CheckMonitoringService(report, transport.get()));
  conditions.push_back(CheckAccessToken(finding));
  conditions.push_back(CheckUploads(finding));
  conditions.push_back(CheckRecords(finding));
  return conditions;
}

}  // namespace pelmorctl
