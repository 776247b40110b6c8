#include "pelmorctl/status_checks.h"

#include <algorithm>

#include "pelmorctl/status.h"

namespace pelmorctl {

namespace {

constexpr int64_t kUnauthorized = 401;

struct Loss {
  const char* section;
  const char* key;
  const char* what;
  const char* advice;
};
// Of records that the daemon had taken. The advice of the first is given.
constexpr Loss kLosses[] = {
    {"points", "rejected", "points rejected by the service",
     "see the daemon's log, which has the service's response"},
    {"points", "over_limit", "points over the limit of a cycle",
     "shorten PELMOR_UPLOAD_INTERVAL_IN_SECONDS, or record fewer points"},
    {"points", "too_old", "points too old",
     "see what kept uploads from the service for 30 minutes, above and in the daemon's log"},
    {"points", "pushed_out", "points removed by the response to another request",
     "lengthen PELMOR_UPLOAD_INTERVAL_IN_SECONDS: the service takes longer to respond"},
    {"logs", "pushed_out", "logs pushed out by newer ones",
     "see why the service does not accept logs, or record fewer: 20 are kept"},
};

Condition Unknown(const char* name, const StatusFinding& finding) {
  return Condition::Red(name, "unknown: " + finding.why_not,
                        "have the daemon run as ap-pelmor.service, or ask its own supervisor for "
                        "the status");
}

// What the token endpoint last said is wrong, and what to do about it; null when nothing is known.
const char* AdviseOnTokenError(const std::string& error) {
  if (error == "invalid_client" || error == "unauthorized_client")
    return "correct PELMOR_CLIENT_SECRET (and PELMOR_CLIENT_ID), which the identity provider "
           "rejects, restart the daemon, and then have the cloud send this device its credentials "
           "command";
  if (error == "invalid_scope")
    return "correct PELMOR_SCOPE, restart the daemon, and then have the cloud send this device its "
           "credentials command";
  return nullptr;
}

std::string DescribeFailure(const DaemonStatus& status, const std::string& section) {
  const std::string code = status.Text(section, "status");
  const std::string error = status.Text(section, "error");
  return (code.empty() ? "no response" : "HTTP " + code) + (error.empty() ? "" : ", " + error) +
         ", at " + FormatTime(status.Number(section, "time"));
}

bool IsAccepted(const DaemonStatus& status, const std::string& section) {
  return !status.Has(section) || status.Number(section, "status") / 100 == 2;
}

std::string AdviseOnUpload(const DaemonStatus& status, const std::string& section) {
  const int64_t code = status.Number(section, "status");
  if (code == 0) return "see 'monitoring-service' above, and this device's network";
  if (code == kUnauthorized)
    return "when it stays so at the next cycle: see that PELMOR_URL and PELMOR_SCOPE belong to the "
           "same service, and whether the service knows this device";
  return "see the daemon's log, which has the service's response";
}

bool IsRecent(int64_t seconds_since_epoch) {
  return base::Time::Now() - base::Time::FromTimeT(seconds_since_epoch) < kRecentDrop;
}

}  // namespace

std::string AdviseOnCredentials(const StatusFinding& finding) {
  const char* const advice =
      finding.status ? AdviseOnTokenError(finding.status->Text("token", "error")) : nullptr;
  return advice ? advice
                : "have the cloud send this device its credentials command; when it has, see the "
                  "daemon's log";
}

Condition CheckAccessToken(const StatusFinding& finding) {
  constexpr char kName[] = "access-token";
  if (!finding.status) return Unknown(kName, finding);
  const DaemonStatus& status = *finding.status;
  if (status.Text("gates", "access_token") == "yes")
    return Condition::Green(kName, "the daemon holds one");
  if (!status.Has("token"))
    return Condition::Red(kName, "the daemon holds none, and has asked for none",
                          "see 'provisioned' above");
  const char* const advice = AdviseOnTokenError(status.Text("token", "error"));
  return Condition::Red(
      kName,
      "the daemon holds none; the token endpoint's last response: " +
          DescribeFailure(status, "token"),
      advice ? advice : "see 'provisioned', 'token-endpoint' and the daemon's log");
}

Condition CheckUploads(const StatusFinding& finding) {
  constexpr char kName[] = "uploads";
  if (!finding.status) return Unknown(kName, finding);
  const DaemonStatus& status = *finding.status;
  for (const char* const section : {"metrics", "log"}) {
    if (IsAccepted(status, section)) continue;
    return Condition::Red(kName,
                          std::string("the last ") + section +
                              " request was not accepted: " + DescribeFailure(status, section),
                          AdviseOnUpload(status, section));
  }
  const bool any = status.Has("metrics") || status.Has("log");
  return Condition::Green(kName, any ? "the last were accepted" : "none yet");
}

Condition CheckRecords(const StatusFinding& finding) {
  constexpr char kName[] = "records";
  if (!finding.status) return Unknown(kName, finding);
  const DaemonStatus& status = *finding.status;
  std::string losses;
  std::string advice;
  for (const Loss& loss : kLosses) {
    const int64_t count = status.Number(loss.section, loss.key);
    if (count == 0) continue;
    losses += (losses.empty() ? "" : ", ") + std::to_string(count) + " " + loss.what;
    if (advice.empty()) advice = loss.advice;
  }
  const int64_t last =
      std::max(status.Number("points", "dropped_at"), status.Number("logs", "dropped_at"));
  if (losses.empty()) return Condition::Green(kName, "none that was taken has been dropped");
  if (!IsRecent(last))
    return Condition::Green(kName, "none that was taken was dropped since " + FormatTime(last));
  return Condition::Red(
      kName, "dropped since the daemon's start: " + losses + "; the last at " + FormatTime(last),
      advice);
}

}  // namespace pelmorctl
