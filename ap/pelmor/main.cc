// ap-pelmor: takes the telemetry of an access point to its cloud.

#include "ap/pelmor/daemon.h"
#include "kestle/flag_helper.h"
#include "kestle/log.h"

int main(int argc, char* argv[]) {
  kestle::FlagHelper::Init(argc, argv, argv[0]);
  kestle::InitLog(kestle::kLogToSyslog | kestle::kLogToStderr | kestle::kLogHeader);
  varelnos::ap::Daemon daemon;
  return daemon.Run();
}
