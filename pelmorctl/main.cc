// pelmorctl: hands records to the telemetry daemon, and tells what keeps them from the cloud.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/message_loop.h"
#include "base/printable.h"
#include "base/time.h"
#include "dbus/bus.h"
#include "kestle/error.h"
#include "kestle/log.h"
#include "pelmorctl/account.h"
#include "pelmorctl/arguments.h"
#include "pelmorctl/bus_checks.h"
#include "pelmorctl/config_check.h"
#include "pelmorctl/doctor.h"
#include "pelmorctl/exit_codes.h"
#include "pelmorctl/record.h"
#include "pelmorctl/report.h"
#include "pelmorctl/status.h"
#include "pelmorctl/status_source.h"
#include "pelmorctl/wait.h"

namespace pelmorctl {

namespace {

constexpr base::TimeDelta kWatchPeriod = base::TimeDelta::FromSeconds(1);
// Clears a terminal.
constexpr char kClearScreen[] = "\033[H\033[2J";

void Complain(const std::string& complaint) {
  std::fprintf(stderr, "pelmorctl: %s\n", base::Printable(complaint).c_str());
}

// A result that nobody gets is no success.
ExitCode Print(const std::string& text, ExitCode code) {
  const bool printed =
      std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
  if (printed) return code;
  Complain("can't write to the standard output");
  return kFailed;
}

ExitCode Perform(const ShowText& task) { return Print(task.text, kDone); }

template <typename Recording>
ExitCode Perform(const Recording& task) {
  std::string complaint;
  const ExitCode code = Record(task, &complaint);
  if (code != kDone) Complain(complaint);
  return code;
}

ExitCode Perform(const CheckConfiguration& task) {
  // Without a bus or a daemon on it, it is still known whom the daemon is meant to run as.
  const scoped_refptr<dbus::Bus> bus = dbus::Bus::ConnectToSystemBus(nullptr);
  const ConfigReport report =
      CheckConfigFiles(task.file, task.override_file, DaemonAccount(FindDaemonUser(bus)));
  return Print(FormatConfigReport(report), report.Count(Severity::kError) == 0 ? kDone : kFailed);
}

// The status as text, or else a complaint.
std::string DescribeStatus(bool json, std::string* complaint) {
  kestle::ErrorPtr error;
  const scoped_refptr<dbus::Bus> bus = dbus::Bus::ConnectToSystemBus(&error);
  const std::optional<DaemonStatus> status = AskForStatus(bus, complaint);
  if (!bus) *complaint = "the system bus can't be reached: " + error->GetMessage();
  if (!status) return "";
  return json ? FormatStatusAsJson(*status) : FormatStatusTable(*status);
}

// Until it is interrupted, or printing fails. Outlives the daemon and the bus.
ExitCode Watch(bool json) {
  const bool clear = !json && isatty(STDOUT_FILENO) != 0;
  std::string shown;
  for (;;) {
    std::string complaint;
    const std::string text = DescribeStatus(json, &complaint);
    if (text + complaint != shown) {
      shown = text + complaint;
      if (Print(text.empty() || !clear ? text : kClearScreen + text, kDone) != kDone)
        return kFailed;
      if (text.empty()) Complain(complaint);
    }
    WaitUntil([] { return false; }, kWatchPeriod);
  }
}

ExitCode Perform(const ShowStatus& task) {
  if (task.watch) return Watch(task.json);
  std::string complaint;
  const std::string text = DescribeStatus(task.json, &complaint);
  if (!text.empty()) return Print(text, kDone);
  Complain(complaint);
  return kUnavailable;
}

ExitCode Perform(const RunDoctor& task) {
  const std::vector<Condition> conditions = Examine();
  const bool colour = WantsColour(isatty(STDOUT_FILENO) != 0, std::getenv("NO_COLOR"));
  return Print(
      task.json ? FormatConditionsAsJson(conditions) : FormatConditions(conditions, colour),
      AllGreen(conditions) ? kDone : kFailed);
}

ExitCode Main(const std::vector<std::string>& arguments) {
  std::string complaint;
  const std::optional<Task> task = ParseArguments(arguments, &complaint);
  if (!task) {
    Complain(complaint);
    return kUsage;
  }
  const base::MessageLoop loop;
  return std::visit([](const auto& one) { return Perform(one); }, *task);
}

}  // namespace

}  // namespace pelmorctl

int main(int argc, char* argv[]) {
  kestle::InitLog(kestle::kLogToStderr);
  return pelmorctl::Main({argv + 1, argv + argc});
}
