#include "pelmorctl/usage.h"

#include "base/logging.h"

namespace pelmorctl {

namespace {

constexpr char kProgramUsage[] = R"(Usage: pelmorctl COMMAND [ARGUMENT]...

Hands records to the telemetry daemon, checks its configuration, and tells what
keeps records from the cloud.

  metric NAME VALUE             record one point of a metric
  structured TYPE_URL [FILE]    record an entry of the structured log
  offline TYPE_URL [FILE]       record a piece of offline data
  check-config                  check the configuration before a restart finds out
  status                        show what became of the records so far
  doctor                        check all that must hold before records get through

  --help                        show this, or the help of a command
  --version                     show the version

Exit status: 0 done and well, 1 failed or something is wrong, 64 the command
line is wrong, 69 the daemon or the bus is not there.
)";

constexpr char kMetricUsage[] =
    R"(Usage: pelmorctl metric NAME VALUE [--type TYPE] [-l KEY=VALUE]...

Records one point of the metric NAME at the present time.

  --type TYPE            int64, double, bool or string. Without it, VALUE is what
                         it looks like: true and false are booleans, a whole
                         number that fits is an int64, another number a double,
                         and the rest a string
  -l, --label KEY=VALUE  a label of the point; may be given several times

The daemon tells nobody whether it keeps a record: see 'pelmorctl status'.
)";

constexpr char kStructuredUsage[] = R"(Usage: pelmorctl structured TYPE_URL [FILE]

Records the bytes of FILE as an entry of the structured log. Without FILE, or
with -, reads the standard input. TYPE_URL names the type of the entry.

The daemon tells nobody whether it keeps a record: see 'pelmorctl status'.
)";

constexpr char kOfflineUsage[] = R"(Usage: pelmorctl offline TYPE_URL [FILE]

Records the bytes of FILE as a piece of offline data. Without FILE, or with -,
reads the standard input. TYPE_URL names the type of the data.

The daemon tells nobody whether it keeps a record: see 'pelmorctl status'.
)";

constexpr char kCheckConfigUsage[] =
    R"(Usage: pelmorctl check-config [--config FILE] [--override FILE]

Reads the configuration as the daemon does at its start, and shows each key with
its place and each fault with file and line. An error stops the daemon; with a
warning it starts, but maybe not as meant. The client secret is never shown.
Run it as root: it also checks whether the daemon's user can read the files, and
whether others can read the secret.

  --config FILE    in place of /etc/ap/pelmor.conf
  --override FILE  in place of /var/lib/ap/pelmor.override

Exit status: 0 without errors, 1 with.
)";

constexpr char kStatusUsage[] = R"(Usage: pelmorctl status [--json] [--watch]

Shows what the daemon has published to systemd after its last upload cycle or
change of state: how many points and logs were recorded since its start, and how
many of them were accepted, dropped, and why, or are pending or in flight; its
gates; and the last responses of the cloud.

  --json   one JSON object in place of the text
  --watch  show it again each time it changes, until interrupted

Exit status: 0, or 69 when the daemon does not run or systemd has no status.
)";

constexpr char kDoctorUsage[] = R"(Usage: pelmorctl doctor [--json]

Checks, each by asking the real thing, all that must hold before the daemon
takes a record and uploads it, and whether records have been accepted or dropped,
and says what to do where something is wrong. No credentials are sent anywhere.
Run it as root: it looks into the daemon's files.

  --json  one JSON object in place of the text

Exit status: 0 when all is well, 1 when something is wrong.
)";

constexpr struct {
  const char* command;
  const char* usage;
} kUsages[] = {{"metric", kMetricUsage},   {"structured", kStructuredUsage},
               {"offline", kOfflineUsage}, {"check-config", kCheckConfigUsage},
               {"status", kStatusUsage},   {"doctor", kDoctorUsage}};

}  // namespace

std::string ProgramUsage() { return kProgramUsage; }

std::string CommandUsage(const std::string& command) {
  for (const auto& known : kUsages) {
    if (command == known.command) return known.usage;
  }
  LOG(FATAL) << "No usage of " << command;
  return {};
}

std::string VersionText() { return "pelmorctl " + Version() + "\n"; }

std::string Version() { return PELMOR_VERSION; }

}  // namespace pelmorctl
