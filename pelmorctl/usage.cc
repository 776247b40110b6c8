#include "pelmorctl/usage.h"

#include "base/logging.h"

namespace pelmorctl {

namespace {

constexpr char kProgramUsage[] = R"(Usage: pelmorctl COMMAND [ARGUMENT]...

Sends records to the telemetry daemon, checks its configuration, and finds out
why records do not reach the cloud.

  metric NAME VALUE             record one point of a metric
  structured TYPE_URL [FILE]    record an entry of the structured log
  offline TYPE_URL [FILE]       record a piece of offline data
  check-config                  check the daemon's configuration
  status                        show how many records were uploaded or dropped
  doctor                        check every precondition of an upload
  version                       show the versions and token endpoints

  --help                        show this, or the help of a command
  --version                     show this program's version

Exit status: 0 success, 1 failure or something is wrong, 64 usage error, 69 the
daemon or the bus is unavailable.
)";

constexpr char kMetricUsage[] =
    R"(Usage: pelmorctl metric NAME VALUE [--type TYPE] [-l KEY=VALUE]...
       pelmorctl metric --stream

Records one point of the metric NAME, with the current time.

  --type TYPE            int64, double, bool or string. By default, true and false
                         are booleans, a whole number in range is an int64, any
                         other number is a double, and the rest is a string
  -l, --label KEY=VALUE  a label of the point; may be given several times
  --stream               record the points of standard input: each line has the
                         words above, quoted as in a shell. A line with a mistake
                         is reported and skipped; the exit status is then 1

The daemon does not report whether it keeps a record: see 'pelmorctl status'.
)";

constexpr char kStructuredUsage[] = R"(Usage: pelmorctl structured TYPE_URL [FILE]

Records the bytes of FILE as an entry of the structured log. Without FILE, or
with -, reads standard input. TYPE_URL names the type of the entry.

The daemon does not report whether it keeps a record: see 'pelmorctl status'.
)";

constexpr char kOfflineUsage[] = R"(Usage: pelmorctl offline TYPE_URL [FILE]

Records the bytes of FILE as a piece of offline data. Without FILE, or with -,
reads standard input. TYPE_URL names the type of the data.

The daemon does not report whether it keeps a record: see 'pelmorctl status'.
)";

constexpr char kCheckConfigUsage[] =
    R"(Usage: pelmorctl check-config [--config FILE] [--override FILE] [--strict]

Reads the configuration as the daemon does at its start, and prints each key and
each fault with its file and line. An error stops the daemon; with a warning it
starts, but probably not as intended. The client secret is never printed.
Run it as root: it also checks whether the daemon's user can read the files, and
whether other users can read the secret.

  --config FILE    check FILE instead of /etc/ap/pelmor.conf
  --override FILE  check FILE instead of /var/lib/ap/pelmor.override
  --strict         count warnings as errors in the exit status

Exit status: 0 without errors, 1 with errors.
)";

constexpr char kStatusUsage[] = R"(Usage: pelmorctl status [--json] [--watch]

Prints the status that the daemon last published to systemd: how many points and
logs were recorded since its start, and how many of them were accepted, were
dropped (by reason), are pending or are in flight; the daemon's gates; and the
last responses of the cloud.

  --json   print one JSON object instead of a table
  --watch  print again after each change, until interrupted

Exit status: 0, or 69 if the daemon does not run or systemd has no status.
)";

constexpr char kDoctorUsage[] = R"(Usage: pelmorctl doctor [--json] [--strict]

Checks every precondition of recording and uploading against the live system,
and whether records were accepted or dropped, and says how to fix what fails. No
credentials are sent. Run it as root: it reads the daemon's files.

  --json    print one JSON object instead of text
  --strict  fail a check that would pass with a warning

Exit status: 0 if everything passes, 1 if something fails.
)";

constexpr char kVersionUsage[] = R"(Usage: pelmorctl version [--daemon FILE]

Prints the version of this program and of the daemon, installed and running, and
the token endpoint that is compiled into each. Says whether the running daemon is
another file than the installed one. Run it as root: it reads the running file.

  --daemon FILE  read FILE instead of the installed daemon

Exit status: 0.
)";

constexpr struct {
  const char* command;
  const char* usage;
} kUsages[] = {{"metric", kMetricUsage},   {"structured", kStructuredUsage},
               {"offline", kOfflineUsage}, {"check-config", kCheckConfigUsage},
               {"status", kStatusUsage},   {"doctor", kDoctorUsage},
               {"version", kVersionUsage}};

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
