#include "pelmorctl/account.h"

#include <grp.h>
#include <pwd.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace pelmorctl {

namespace {

constexpr char kDaemonUser[] = "pelmor";
constexpr int kMaxGroups = 1024;
// Owns no file.
constexpr auto kNoUser = static_cast<uid_t>(-1);

Account Describe(uid_t user, const std::string& role) {
  Account account{user, {}, "user " + std::to_string(user), std::to_string(user)};
  // cppcheck-suppress getpwuidCalled; there is one thread.
  if (const passwd* const entry = getpwuid(user)) {
    account.description = account.name = entry->pw_name;
    account.groups.resize(kMaxGroups);
    int count = kMaxGroups;
    getgrouplist(entry->pw_name, entry->pw_gid, account.groups.data(), &count);
    account.groups.resize(static_cast<size_t>(std::clamp(count, 0, kMaxGroups)));
  }
  account.description += ", " + role;
  return account;
}

bool IsOurs(const Account& account) { return account.user == geteuid(); }

// The folder and those above it, from the root down.
std::vector<std::string> Chain(const std::string& folder) {
  std::vector<std::string> chain = {"/"};
  for (size_t end = folder.find('/', 1); end != std::string::npos; end = folder.find('/', end + 1))
    chain.push_back(folder.substr(0, end));
  chain.push_back(folder);
  return chain;
}

// For an account that needs `rights` on the file or folder itself.
std::optional<Obstacle> FindObstacle(const std::string& path, const Account& account, int rights) {
  for (const std::string& part : Chain(path)) {
    struct stat file {};
    if (stat(part.c_str(), &file) != 0) return Obstacle{part, part + ": " + strerror(errno)};
    if (!ModeAllows(file, account, part == path ? rights : X_OK))
      return Obstacle{part, "the owner and mode of " + part + " forbid it"};
  }
  return std::nullopt;
}

// Resolves links, so that the folders that they lead through are checked too.
std::string Resolve(const std::string& path) {
  char resolved[PATH_MAX];
  return realpath(path.c_str(), resolved) ? resolved : path;
}

std::string NameOfGroup(gid_t group) {
  // cppcheck-suppress getgrgidCalled; there is one thread.
  const struct group* const entry = getgrgid(group);
  return entry ? entry->gr_name : std::to_string(group);
}

}  // namespace

Account DaemonAccount(std::optional<uid_t> running) {
  if (running) return Describe(*running, "the daemon's user");
  // cppcheck-suppress getpwnamCalled; there is one thread.
  if (const passwd* const entry = getpwnam(kDaemonUser))
    return Describe(entry->pw_uid, "the daemon's intended user");
  return Describe(geteuid(), "the caller, because the daemon does not run");
}

bool ModeAllows(const struct stat& file, const Account& account, int rights) {
  const auto wanted = static_cast<mode_t>(rights);
  if (account.user == 0) return true;
  if (file.st_uid == account.user) return (file.st_mode >> 6 & wanted) == wanted;
  const bool in_group =
      std::find(account.groups.begin(), account.groups.end(), file.st_gid) != account.groups.end();
  return ((in_group ? file.st_mode >> 3 : file.st_mode) & wanted) == wanted;
}

base::Result<> CheckWritable(const std::string& folder, const Account& account) {
  struct stat file {};
  struct statvfs file_system {};
  if (stat(folder.c_str(), &file) != 0 || statvfs(folder.c_str(), &file_system) != 0)
    return base::Failure{errno == ENOENT ? "there is no such folder" : strerror(errno)};
  if (!S_ISDIR(file.st_mode)) return base::Failure{"it is not a folder"};
  if (file_system.f_flag & ST_RDONLY) return base::Failure{"its file system is read-only"};
  if (IsOurs(account)) {
    // The kernel also considers access lists, and the capabilities that root lacks.
    if (eaccess(folder.c_str(), W_OK | X_OK) != 0) return base::Failure{strerror(errno)};
  } else if (const auto obstacle = FindObstacle(folder, account, W_OK | X_OK)) {
    return base::Failure{obstacle->why};
  }
  return {};
}

std::optional<Obstacle> FindObstacleToReading(const std::string& path, const Account& account) {
  if (!IsOurs(account)) return FindObstacle(Resolve(path), account, R_OK);
  if (eaccess(path.c_str(), R_OK) == 0) return std::nullopt;
  return Obstacle{path, strerror(errno)};
}

std::string DescribeOtherReaders(const std::string& path) {
  const std::string resolved = Resolve(path);
  Account reader{kNoUser, {}, ""};
  if (!FindObstacle(resolved, reader, R_OK)) return "every local user";
  struct stat file {};
  if (stat(resolved.c_str(), &file) != 0 || file.st_gid == 0) return {};
  reader.groups = {file.st_gid};
  if (FindObstacle(resolved, reader, R_OK)) return {};
  return "every member of the group " + NameOfGroup(file.st_gid);
}

}  // namespace pelmorctl
