// Whether the daemon's account may read a file of the daemon's, and who may read it that should
// not: the texts that every command has for it.
#pragma once

#include <string>

#include "pelmorctl/account.h"

namespace pelmorctl {

enum class Content {
  kPublic,
  kSecret,  // Only root and the daemon should read it.
};

struct FileAccess {
  std::string refusal;   // Why the daemon's account can't read the file; empty when it can.
  std::string exposure;  // Who else can read a secret; empty when nobody can.
  std::string remedy;    // Of either. "run '…'"
};

// Of a file that exists.
FileAccess JudgeAccess(const std::string& path, Content content, const Account& daemon);

}  // namespace pelmorctl
