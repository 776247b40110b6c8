// A fake supervisor, which receives sd_notify's messages: NOTIFY_SOCKET names it while it lives.
// One at a time.
#pragma once

#include <string>
#include <vector>

#include "base/scoped_fd.h"

namespace kestle {

class Supervisor {
 public:
  Supervisor();
  ~Supervisor();
  Supervisor(const Supervisor&) = delete;
  Supervisor& operator=(const Supervisor&) = delete;

  // The messages since the last call.
  std::vector<std::string> TakeNotices();

 private:
  base::ScopedFd socket_;
};

}  // namespace kestle
