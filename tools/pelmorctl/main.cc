// pelmorctl: hands records to the telemetry daemon, and tells what keeps them from the cloud.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/message_loop.h"
#include "kestle/log.h"
#include "tools/pelmorctl/arguments.h"
#include "tools/pelmorctl/doctor.h"
#include "tools/pelmorctl/exit_codes.h"
#include "tools/pelmorctl/record.h"
#include "tools/pelmorctl/report.h"

namespace pelmorctl {

namespace {

void Complain(const std::string& complaint) {
  std::fprintf(stderr, "pelmorctl: %s\n", complaint.c_str());
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
  ConfigReport report = CheckConfig(ReadConfigFile(task.file), ReadConfigFile(task.override_file));
  return Print(FormatConfigReport(report), report.Count(Severity::kError) == 0 ? kDone : kFailed);
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
