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

// The first fault that fits; there is one.
template <typename Predicate>
std::string First(const ConfigReport& report, Predicate fits) {
  const auto first = std::find_if(report.faults.begin(), report.faults.end(), fits);
  return first->Place() + ": " + first->message;
}

std::string CountAndFirst(const ConfigReport& report, Severity severity, const std::string& what) {
  return Count(report.Count(severity), what) + ", the first: " +
         First(report, [=](const Fault& fault) { return fault.severity == severity; });
}

}  // namespace

Condition CheckConfiguration(const ConfigReport& report) {
  constexpr char kName[] = "configuration";
  constexpr char kAdvice[] =
      "run 'pelmorctl check-config', mend what it names, and restart the daemon";
  if (report.Count(Severity::kError) > 0)
    return Condition::Red(kName, CountAndFirst(report, Severity::kError, "error"), kAdvice);
  if (!report.ignored_file.empty())
    return Condition::Red(
        kName, First(report, [&](const Fault& fault) { return fault.file == report.ignored_file; }),
        kAdvice);
  if (report.Count(Severity::kWarning) > 0)
    return Condition::Green(
        kName, "complete, with " + CountAndFirst(report, Severity::kWarning, "warning"));
  return Condition::Green(kName, "complete");
}

Condition CheckReleaseFile(const std::string& path, const Account& account) {
  constexpr char kName[] = "release-file";
  constexpr char kAdvice[] =
      "the image must bring it, as KEY=VALUE lines; without it the daemon does not start";
  std::string text;
  std::string why;
  if (ReadFile(path, &text, &why) != ReadOutcome::kRead)
    return Condition::Red(kName, path + ": " + why, kAdvice);
  const FileAccess access = JudgeAccess(path, Content::kPublic, account);
  if (!access.refusal.empty())
    return Condition::Red(kName, path + ": " + access.refusal, access.remedy + "; " + kAdvice);
  for (const kestle::KeyValueLine& line : kestle::ReadKeyValueLines(text)) {
    if (!line.is_pair)
      return Condition::Red(kName, path + ":" + std::to_string(line.number) + ": no KEY=VALUE",
                            kAdvice);
  }
  kestle::KeyValueStore store;
  if (!store.Load(path)) return Condition::Red(kName, path + ": it can't be loaded", kAdvice);
  return Condition::Green(kName, path + " can be loaded");
}

Condition CheckStartTimeFolder(const std::string& folder, const Account& account) {
  constexpr char kName[] = "start-time-folder";
  std::string why;
  if (MayWriteInto(folder, account, &why))
    return Condition::Green(kName,
                            folder + " is writable (checked for " + account.description + ")");
  return Condition::Red(
      kName, folder + " is not writable: " + why + " (checked for " + account.description + ")",
      "make it at every boot, owned by the daemon's user: without it the first upload stops the "
      "daemon");
}

Condition CheckRefreshToken(const std::string& path, const Account& account,
                            const std::string& advice_without_one) {
  constexpr char kName[] = "provisioned";
  std::string token;
  std::string why;
  const ReadOutcome outcome = ReadFile(path, &token, &why);
  if (outcome == ReadOutcome::kAbsent)
    return Condition::Red(kName, "there is no refresh token: no file " + path, advice_without_one);
  if (outcome == ReadOutcome::kForbidden)
    return Condition::Red(kName, "unknown: this user has no right to read " + path,
                          "run this as root");
  if (outcome != ReadOutcome::kRead)
    return Condition::Red(kName, "unknown: " + path + ": " + why, "mend the file system");
  if (token.empty())
    return Condition::Red(kName, "the refresh token is empty: " + path,
                          "delete the file and have the cloud send its credentials command again");
  const FileAccess access = JudgeAccess(path, Content::kSecret, account);
  if (!access.refusal.empty())
    return Condition::Red(kName, path + ": " + access.refusal,
                          access.remedy + ", and restart the daemon: it starts without the token");
  if (!access.exposure.empty())
    return Condition::Green(kName, "there is a refresh token, but " + path + ": " +
                                       access.exposure + "; " + access.remedy);
  return Condition::Green(kName, "there is a refresh token");
}

}  // namespace pelmorctl
