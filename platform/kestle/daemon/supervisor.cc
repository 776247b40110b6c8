#include "kestle/daemon/supervisor.h"

#include <systemd/sd-daemon.h>

namespace kestle {

void PublishStatus(const std::string& status) {
  constexpr int kKeepEnvironment = 0;
  sd_notify(kKeepEnvironment, ("STATUS=" + status).c_str());
}

}  // namespace kestle
