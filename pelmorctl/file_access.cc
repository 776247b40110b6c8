#include "pelmorctl/file_access.h"

namespace pelmorctl {

namespace {

std::string MakeReadable(const std::string& path, Content content, const Account& daemon) {
  if (content == Content::kPublic) return "run 'chmod a+r " + path + "'";
  return "run 'chown " + daemon.name + " " + path + " && chmod 0400 " + path + "'";
}

// Advises the right to search the folder only, not to list it.
std::string MakeSearchable(const std::string& folder, const Account& daemon) {
  return "let " + daemon.name + " search the folder " + folder + " (chmod a+x, or chown)";
}

bool IsFolder(const std::string& path) {
  struct stat file {};
  return stat(path.c_str(), &file) == 0 && S_ISDIR(file.st_mode);
}

}  // namespace

FileAccess JudgeAccess(const std::string& path, Content content, const Account& daemon) {
  FileAccess access;
  access.remedy = MakeReadable(path, content, daemon);
  if (const auto obstacle = FindObstacleToReading(path, daemon)) {
    access.refusal =
        "the daemon can't read it: " + obstacle->why + " (checked for " + daemon.description + ")";
    if (IsFolder(obstacle->path)) access.remedy = MakeSearchable(obstacle->path, daemon);
  } else if (const std::string readers = DescribeOtherReaders(path);
             content == Content::kSecret && !readers.empty()) {
    access.exposure = "it contains a secret, and " + readers + " can read it";
  }
  return access;
}

}  // namespace pelmorctl
