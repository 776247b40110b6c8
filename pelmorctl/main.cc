// pelmorctl: sends records to the telemetry daemon, and finds out why records do not reach the
// cloud.

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/message_loop.h"
#include "base/printable.h"
#include "base/result.h"
#include "base/time.h"
#include "kestle/log.h"
#include "pelmorctl/account.h"
#include "pelmorctl/arguments.h"
#include "pelmorctl/bus_queries.h"
#include "pelmorctl/config_check.h"
#include "pelmorctl/doctor.h"
#include "pelmorctl/exit_codes.h"
#include "pelmorctl/record.h"
#include "pelmorctl/report.h"
#include "pelmorctl/status.h"
#include "pelmorctl/stream.h"
#include "pelmorctl/versions.h"
#include "pelmorctl/wait.h"

namespace pelmorctl {

namespace {

constexpr base::TimeDelta kWatchPeriod = base::TimeDelta::FromSeconds(1);
// Clears the terminal.
constexpr char kClearScreen[] = "\033[H\033[2J";

void PrintError(const std::string& reason) {
  std::fprintf(stderr, "pelmorctl: %s\n", base::Printable(reason).c_str());
}

// Failing to print the result is a failure.
ExitCode Print(const std::string& text, ExitCode code) {
  const bool printed =
      std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
  if (printed) return code;
  PrintError("can't write to standard output");
  return kFailed;
}

ExitCode Perform(const ShowText& task) { return Print(task.text, kDone); }

ExitCode Perform(const ShowVersions& task) {
  const BusConnection bus = ConnectToBus();
  return Print(DescribeVersions(task.daemon_file, FindDaemonProcess(bus)), kDone);
}

template <typename Recording>
ExitCode Perform(const Recording& task) {
  const Recorded recorded = Record(task);
  if (recorded) return kDone;
  PrintError(recorded.reason());
  return recorded.failure().exit_code;
}

ExitCode Perform(const StreamMetrics& /*task*/) { return RecordStream(STDIN_FILENO, PrintError); }

ExitCode Perform(const CheckConfiguration& task) {
  // The account is also known without a bus, or without the daemon on it.
  const Account account = DaemonAccount(FindDaemonUser(ConnectToBus()));
  const ConfigReport report = CheckConfigFiles(task.file, task.override_file, account);
  const bool passed = report.Count(Severity::kError) == 0 &&
                      (!task.strict || report.Count(Severity::kWarning) == 0);
  return Print(FormatConfigReport(report), passed ? kDone : kFailed);
}

base::Result<std::string> DescribeStatus(bool json) {
  const auto status = ReadDaemonStatus(ConnectToBus());
  if (!status) return status.failure();
  return json ? FormatStatusAsJson(*status) : FormatStatusTable(*status);
}

// Runs until it is interrupted or printing fails, and continues while the daemon or the bus is
// absent.
ExitCode Watch(bool json) {
  const bool clear = !json && isatty(STDOUT_FILENO) != 0;
  std::string shown;
  for (;;) {
    const auto text = DescribeStatus(json);
    const std::string& current = text ? *text : text.reason();
    if (current != shown) {
      shown = current;
      if (text && Print(clear ? kClearScreen + *text : *text, kDone) != kDone) return kFailed;
      if (!text) PrintError(text.reason());
    }
    Wait(kWatchPeriod);
  }
}

ExitCode Perform(const ShowStatus& task) {
  if (task.watch) return Watch(task.json);
  const auto text = DescribeStatus(task.json);
  if (text) return Print(*text, kDone);
  PrintError(text.reason());
  return kUnavailable;
}

ExitCode Perform(const RunDoctor& task) {
  const std::vector<Condition> conditions = task.strict ? FailWarnings(Examine()) : Examine();
  const bool colour = WantsColour(isatty(STDOUT_FILENO) != 0, std::getenv("NO_COLOR"));
  return Print(
      task.json ? FormatConditionsAsJson(conditions) : FormatConditions(conditions, colour),
      AllPassed(conditions) ? kDone : kFailed);
}

ExitCode Main(const std::vector<std::string>& arguments) {
  const base::Result<Task> task = ParseArguments(arguments);
  if (!task) {
    PrintError(task.reason());
    return kUsage;
  }
  const base::MessageLoop loop;
  return std::visit([](const auto& one) { return Perform(one); }, *task);
}

}  // namespace

}  // namespace pelmorctl

int main(int argc, char* argv[]) {
  kestle::InitLog(kestle::kLogToStderr);
  // Before 5.18, Linux starts a program with an empty argument vector if its caller asks for that.
  return pelmorctl::Main({argv + std::min(argc, 1), argv + argc});
}
