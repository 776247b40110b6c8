// The user that the daemon runs as, and what that user may read and write.
//
// An account other than ours is judged by owners and modes alone, not by access lists.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace pelmorctl {

struct Account {
  uid_t user = 0;
  std::vector<gid_t> groups;
  std::string description;  // "pelmor, whom the daemon runs as"
  std::string name = {};    // "pelmor"; the number of a user without a name.
};

// The first part of a path that keeps an account out: the file, or a folder above it.
struct Obstacle {
  std::string path;
  std::string why;
};

// The user of the running daemon, or else the one that it is meant for, or else our own.
Account DaemonAccount(std::optional<uid_t> running);

// Whether the bits of the mode let the account do all of `rights`, a sum of R_OK, W_OK and X_OK.
bool ModeAllows(const struct stat& file, const Account& account, int rights);

// Whether the account may make files in the folder. On failure says why in `why`.
bool MayWriteInto(const std::string& folder, const Account& account, std::string* why);

// What keeps the account from reading the file; nothing when it may.
std::optional<Obstacle> FindObstacleToReading(const std::string& path, const Account& account);

// Who may read the file besides root, its owner and root's group; empty when nobody may.
std::string DescribeOtherReaders(const std::string& path);

}  // namespace pelmorctl
