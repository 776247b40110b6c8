// The user that the daemon runs as, and what that user may write.
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
};

// The user of the running daemon, or else the one that it is meant for, or else our own.
Account DaemonAccount(std::optional<uid_t> running);

// Whether the bits of the mode let the account do all of `rights`, a sum of R_OK, W_OK and X_OK.
bool ModeAllows(const struct stat& file, const Account& account, int rights);

// Whether the account may make files in the folder. On failure says why in `why`. Goes by the modes
// of the folder and of those above it when the account is another's than ours.
bool MayWriteInto(const std::string& folder, const Account& account, std::string* why);

}  // namespace pelmorctl
