#include "kestle/log.h"

#include <cerrno>

#include "base/logging.h"

namespace kestle {

void InitLog(int flags) {
  base::InitLogging(program_invocation_short_name, {.to_syslog = (flags & kLogToSyslog) != 0,
                                                    .to_stderr = (flags & kLogToStderr) != 0,
                                                    .with_header = (flags & kLogHeader) != 0});
}

}  // namespace kestle
