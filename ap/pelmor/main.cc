// ap-pelmor: uploads the telemetry of an access point to its cloud.
//
// `wiping_heap.cc`, which replaces the global new and delete, is linked into this program too.

#include "ap/pelmor/daemon.h"
#include "kestle/flag_helper.h"
#include "kestle/log.h"

namespace {

// Says which daemon this file is: its version and its token endpoint. `pelmorctl version` reads it,
// also from the file of a running daemon that an upgrade has replaced.
[[gnu::used, gnu::retain]] constexpr char kIdentity[] =
    "@(#)ap-pelmor " PELMOR_VERSION " " PELMOR_TOKEN_ENDPOINT_URL;

}  // namespace

int main(int argc, char* argv[]) {
  // Linux before 5.18 starts a program with an empty argument vector if its caller asks for that.
  kestle::FlagHelper::Init(argc, argv, argc > 0 ? argv[0] : "ap-pelmor");
  kestle::InitLog(kestle::kLogToSyslog | kestle::kLogToStderr | kestle::kLogHeader);
  varelnos::ap::Daemon daemon;
  return daemon.Run();
}
