// Describes whether the daemon's account may read one of the daemon's files, and whether other
// users may read its secrets.
#pragma once

#include <string>

#include "pelmorctl/account.h"

namespace pelmorctl {

enum class Content {
  kPublic,
  kSecret,  // Only root and the daemon should read it.
};

struct FileAccess {
  std::string refusal;   // Why the daemon's account can't read the file; empty if it can.
  std::string exposure;  // Who else can read a secret; empty if no other user can.
  std::string remedy;    // How to fix either: "run '…'".
};

// Precondition: the file exists.
FileAccess JudgeAccess(const std::string& path, Content content, const Account& daemon);

}  // namespace pelmorctl
