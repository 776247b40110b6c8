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
// Of records that the daemon had accepted from callers. Only the advice of the first is given.
constexpr Loss kLosses[] = {
    {"points", "rejected", "points rejected by the service",
     "see the service's response in the daemon's log"},
    {"points", "over_limit", "points over the limit of a cycle",
     "shorten PELMOR_UPLOAD_INTERVAL_IN_SECONDS, or record fewer points"},
    {"points", "too_old", "points too old",
     "find out, above and in the daemon's log, why uploads failed for 30 minutes"},
    {"points", "pushed_out", "points removed by the response to another request",
     "lengthen PELMOR_UPLOAD_INTERVAL_IN_SECONDS: the service takes longer to respond"},
    {"logs", "pushed_out", "logs pushed out by newer ones",
     "find out why the service does not accept logs, or record fewer: 20 are kept"},
};

Condition Unknown(const char* name, const StatusFinding& status) {
  return Condition::Fail(name, "unknown: " + status.reason(),
                         "run the daemon as ap-pelmor.service, or read the status from its own "
                         "supervisor");
}

// How to fix an error of the token endpoint; null if no fix is known.
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
  if (code == 0) return "see 'monitoring-service' above, and check this device's network";
  if (code == kUnauthorized)
    return "if it persists in the next cycle, check that PELMOR_URL and PELMOR_SCOPE belong to the "
           "same service, and that the service knows this device";
  return "see the service's response in the daemon's log";
}

bool IsRecent(int64_t seconds_since_epoch) {
  return base::Time::Now() - base::Time::FromTimeT(seconds_since_epoch) < kRecentDrop;
}

}  // namespace

std::string AdviseOnCredentials(const StatusFinding& status) {
  const char* const advice = status ? AdviseOnTokenError(status->Text("token", "error")) : nullptr;
  return advice ? advice
                : "have the cloud send this device its credentials command; if it has done so, see "
                  "the daemon's log";
}

Condition CheckAccessToken(const StatusFinding& status) {
  constexpr char kName[] = "access-token";
  if (!status) return Unknown(kName, status);
  if (status->Text("gates", "access_token") == "yes")
    return Condition::Pass(kName, "the daemon has one");
  if (!status->Has("token"))
    return Condition::Fail(kName, "the daemon has none, and has not requested one",
                           "see 'provisioned' above");
  const char* const advice = AdviseOnTokenError(status->Text("token", "error"));
  return Condition::Fail(
      kName,
      "the daemon has none; the token endpoint's last response: " +
          DescribeFailure(*status, "token"),
      advice ? advice : "see 'provisioned', 'token-endpoint' and the daemon's log");
}

Condition CheckUploads(const StatusFinding& status) {
  constexpr char kName[] = "uploads";
  if (!status) return Unknown(kName, status);
  for (const char* const section : {"metrics", "log"}) {
    if (IsAccepted(*status, section)) continue;
    return Condition::Fail(kName,
                           std::string("the last ") + section +
                               " request was not accepted: " + DescribeFailure(*status, section),
                           AdviseOnUpload(*status, section));
  }
  const bool any = status->Has("metrics") || status->Has("log");
  return Condition::Pass(kName, any ? "the last ones were accepted" : "none yet");
}

Condition CheckRecords(const StatusFinding& status) {
  constexpr char kName[] = "records";
  if (!status) return Unknown(kName, status);
  std::string losses;
  std::string advice;
  for (const Loss& loss : kLosses) {
    const int64_t count = status->Number(loss.section, loss.key);
    if (count == 0) continue;
    losses += (losses.empty() ? "" : ", ") + std::to_string(count) + " " + loss.what;
    if (advice.empty()) advice = loss.advice;
  }
  const int64_t last =
      std::max(status->Number("points", "dropped_at"), status->Number("logs", "dropped_at"));
  if (losses.empty())
    return Condition::Pass(kName, "none has been dropped after it was accepted from a caller");
  if (!IsRecent(last))
    return Condition::Pass(kName, "none has been dropped since " + FormatTime(last));
  return Condition::Fail(
      kName, "dropped since the daemon's start: " + losses + "; the last at " + FormatTime(last),
      advice);
}

}  // namespace pelmorctl
