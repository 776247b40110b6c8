#include "pelmorctl/local_checks.h"

#include <algorithm>

#include "kestle/key_value_store.h"
#include "pelmorctl/file_access.h"
#include "pelmorctl/files.h"

namespace pelmorctl {

namespace {

std::string Count(int count, const std::string& what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

// Precondition: a fault fits.
template <typename Predicate>
std::string First(const ConfigReport& report, Predicate fits) {
  const auto first = std::find_if(report.faults.begin(), report.faults.end(), fits);
  return first->Place() + ": " + first->message;
}

std::string CountAndFirst(const ConfigReport& report, Severity severity, const std::string& what) {
  return Count(report.Count(severity), what) + ", the first: " +
         First(report, [=](const Fault& fault) { return fault.severity == severity; });
}

Condition ExplainNoToken(const char* name, const std::string& path, const ReadFailure& failure,
                         const std::string& advice_without_one) {
  if (failure.error == ReadError::kAbsent)
    return Condition::Fail(name, "there is no refresh token: no file " + path, advice_without_one);
  if (failure.error == ReadError::kForbidden)
    return Condition::Fail(name, "unknown: this user has no right to read " + path,
                           "run this as root");
  return Condition::Fail(name, "unknown: " + path + ": " + failure.reason,
                         "fix the file or its file system");
}

}  // namespace

Condition CheckConfiguration(const ConfigReport& report) {
  constexpr char kName[] = "configuration";
  constexpr char kAdvice[] =
      "run 'pelmorctl check-config', fix what it reports, and restart the daemon";
  if (report.Count(Severity::kError) > 0)
    return Condition::Fail(kName, CountAndFirst(report, Severity::kError, "error"), kAdvice);
  if (!report.ignored_file.empty())
    return Condition::Fail(
        kName, First(report, [&](const Fault& fault) { return fault.file == report.ignored_file; }),
        kAdvice);
  if (report.Count(Severity::kWarning) > 0)
    return Condition::Warn(
        kName, "complete, with " + CountAndFirst(report, Severity::kWarning, "warning"), kAdvice);
  return Condition::Pass(kName, "complete");
}

Condition CheckReleaseFile(const std::string& path, const Account& account) {
  constexpr char kName[] = "release-file";
  constexpr char kAdvice[] =
      "add it to the image, as KEY=VALUE lines; without it the daemon does not start";
  const FileText text = ReadFile(path);
  if (!text) return Condition::Fail(kName, path + ": " + text.reason(), kAdvice);
  const FileAccess access = JudgeAccess(path, Content::kPublic, account);
  if (!access.refusal.empty())
    return Condition::Fail(kName, path + ": " + access.refusal, access.remedy + "; " + kAdvice);
  for (const kestle::KeyValueLine& line : kestle::ReadKeyValueLines(*text)) {
    if (!line.is_pair)
      return Condition::Fail(kName, path + ":" + std::to_string(line.number) + ": not KEY=VALUE",
                             kAdvice);
  }
  kestle::KeyValueStore store;
  if (!store.Load(path)) return Condition::Fail(kName, path + ": it can't be loaded", kAdvice);
  return Condition::Pass(kName, path + " can be loaded");
}

Condition CheckStartTimeFolder(const std::string& folder, const Account& account) {
  constexpr char kName[] = "start-time-folder";
  const std::string checked_for = " (checked for " + account.description + ")";
  const base::Result<> writable = CheckWritable(folder, account);
  if (writable) return Condition::Pass(kName, folder + " is writable" + checked_for);
  return Condition::Fail(
      kName, folder + " is not writable: " + writable.reason() + checked_for,
      "create it at every boot, owned by the daemon's user: without it the first upload stops the "
      "daemon");
}

Condition CheckRefreshToken(const std::string& path, const Account& account,
                            const std::string& advice_without_one) {
  constexpr char kName[] = "provisioned";
  const FileText token = ReadFile(path);
  if (!token) return ExplainNoToken(kName, path, token.failure(), advice_without_one);
  if (token->empty())
    return Condition::Fail(kName, "the refresh token is empty: " + path,
                           "delete the file and have the cloud resend its credentials command");
  const FileAccess access = JudgeAccess(path, Content::kSecret, account);
  if (!access.refusal.empty())
    return Condition::Fail(kName, path + ": " + access.refusal,
                           access.remedy + ", and restart the daemon: it starts without the token");
  if (!access.exposure.empty())
    return Condition::Warn(
        kName,
        "there is a refresh token, but " + path + ": " + access.exposure + "; " + access.remedy,
        access.remedy);
  return Condition::Pass(kName, "there is a refresh token");
}

}  // namespace pelmorctl
