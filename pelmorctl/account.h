// The user that the daemon runs as, and what that user may read and write.
//
// For other accounts than our own only owners and modes are checked, not access lists.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "base/result.h"

namespace pelmorctl {

struct Account {
  uid_t user = 0;
  std::vector<gid_t> groups;
  std::string description;  // "pelmor, the daemon's user"
  std::string name = {};    // "pelmor"; the number of a user without a name.
};

// The part of a path that denies an account access: the file, or a folder above it.
struct Obstacle {
  std::string path;
  std::string why;
};

// The user of the running daemon, or else the one that the package creates, or else our own.
Account DaemonAccount(std::optional<uid_t> running);

// Whether the mode grants the account all of `rights`, a sum of R_OK, W_OK and X_OK.
bool ModeAllows(const struct stat& file, const Account& account, int rights);

// Whether the account may create files in the folder.
base::Result<> CheckWritable(const std::string& folder, const Account& account);

// Nothing if the account may read the file.
[[nodiscard]] std::optional<Obstacle> FindObstacleToReading(const std::string& path,
                                                            const Account& account);

// Names the users who may read the file besides root, its owner and root's group; may be empty.
std::string DescribeOtherReaders(const std::string& path);

}  // namespace pelmorctl
