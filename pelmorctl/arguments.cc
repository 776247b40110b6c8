#include "pelmorctl/arguments.h"

#include <optional>
#include <vector>

#include "dbus/text.h"
#include "pelmorctl/command_line.h"
#include "pelmorctl/metric_value.h"
#include "pelmorctl/usage.h"

namespace pelmorctl {

namespace {

constexpr Option kHelp{"--help", 'h', false};
constexpr Option kLabel{"--label", 'l', true};
constexpr Option kType{"--type", 0, true};
constexpr Option kStream{"--stream", 0, false};
constexpr Option kConfig{"--config", 0, true};
constexpr Option kOverride{"--override", 0, true};
constexpr Option kStrict{"--strict", 0, false};
constexpr Option kDaemon{"--daemon", 0, true};
constexpr Option kJson{"--json", 0, false};
constexpr Option kWatch{"--watch", 0, false};

base::Result<> CheckText(const std::string& what, const std::string& text) {
  if (text.empty()) return base::Failure{"the " + what + " is empty"};
  if (!dbus::IsText(text))
    return base::Failure{"the " + what + " is not UTF-8 text that D-Bus can carry"};
  return {};
}

base::Result<> AddLabel(const std::string& text, std::map<std::string, std::string>* labels) {
  const size_t equals = text.find('=');
  if (equals == std::string::npos || equals == 0)
    return base::Failure{"'" + text + "' is not a label: give KEY=VALUE"};
  if (auto checked = CheckText("label", text); !checked) return checked;
  const std::string key = text.substr(0, equals);
  if (labels->emplace(key, text.substr(equals + 1)).second) return {};
  return base::Failure{"the label '" + key + "' is given twice"};
}

base::Result<kestle::Any> ParseValue(const Words& words) {
  std::optional<ValueType> type;
  if (const auto name = words.Last(kType.name)) {
    type = ParseValueType(*name);
    if (!type)
      return base::Failure{"no type '" + *name + "'; the types are int64, double, bool and string"};
  }
  return ParseMetricValue(words.positionals[1], type);
}

base::Result<RecordMetric> ParseRecord(const Words& words) {
  if (words.positionals.size() != 2) return base::Failure{"give a NAME and a VALUE"};
  RecordMetric task;
  task.name = words.positionals[0];
  if (const auto checked = CheckText("name", task.name); !checked) return checked.failure();
  const auto value = ParseValue(words);
  if (!value) return value.failure();
  task.value = *value;
  for (const auto& [option, text] : words.options) {
    if (option != kLabel.name) continue;
    if (const auto added = AddLabel(text, &task.labels); !added) return added.failure();
  }
  return task;
}

base::Result<Task> ParseMetric(const Words& words) {
  if (words.Has(kStream.name)) {
    if (!words.positionals.empty() || words.options.size() > 1)
      return base::Failure{"--stream takes no other arguments"};
    return Task(StreamMetrics());
  }
  const auto task = ParseRecord(words);
  if (!task) return task.failure();
  return Task(*task);
}

base::Result<Task> ParseData(DataKind kind, const Words& words) {
  if (words.positionals.empty() || words.positionals.size() > 2)
    return base::Failure{"give a TYPE_URL, and at most one FILE"};
  RecordData task{kind, words.positionals[0]};
  if (words.positionals.size() == 2) task.file = words.positionals[1];
  if (const auto checked = CheckText("type URL", task.type_url); !checked) return checked.failure();
  return Task(task);
}

base::Result<Task> ParseStructured(const Words& words) {
  return ParseData(DataKind::kStructured, words);
}

base::Result<Task> ParseOffline(const Words& words) { return ParseData(DataKind::kOffline, words); }

base::Result<Task> ParseCheckConfig(const Words& words) {
  CheckConfiguration task;
  task.file = words.Last(kConfig.name).value_or(task.file);
  task.override_file = words.Last(kOverride.name).value_or(task.override_file);
  task.strict = words.Has(kStrict.name);
  return Task(task);
}

base::Result<Task> ParseStatus(const Words& words) {
  return Task(ShowStatus{words.Has(kJson.name), words.Has(kWatch.name)});
}

base::Result<Task> ParseDoctor(const Words& words) {
  return Task(RunDoctor{words.Has(kJson.name), words.Has(kStrict.name)});
}

base::Result<Task> ParseVersion(const Words& words) {
  return Task(ShowVersions{words.Last(kDaemon.name).value_or(PELMOR_INSTALLED_DAEMON)});
}

struct Command {
  const char* name;
  bool takes_positionals;
  std::vector<Option> options;
  base::Result<Task> (*parse)(const Words& words);
};

const std::vector<Command>& Commands() {
  static const std::vector<Command> commands = {
      {"metric", true, {kHelp, kType, kLabel, kStream}, &ParseMetric},
      {"structured", true, {kHelp}, &ParseStructured},
      {"offline", true, {kHelp}, &ParseOffline},
      {"check-config", false, {kHelp, kConfig, kOverride, kStrict}, &ParseCheckConfig},
      {"status", false, {kHelp, kJson, kWatch}, &ParseStatus},
      {"doctor", false, {kHelp, kJson, kStrict}, &ParseDoctor},
      {"version", false, {kHelp, kDaemon}, &ParseVersion}};
  return commands;
}

base::Result<Task> ParseCommand(const Command& command, std::span<const std::string> arguments) {
  const auto words = SplitWords(arguments, command.options);
  if (!words) return words.failure();
  if (words->Has(kHelp.name)) return Task(ShowText{CommandUsage(command.name)});
  if (!command.takes_positionals && !words->positionals.empty())
    return base::Failure{"unexpected argument '" + words->positionals[0] + "'"};
  return command.parse(*words);
}

}  // namespace

base::Result<Task> ParseArguments(std::span<const std::string> arguments) {
  if (arguments.empty()) return base::Failure{"no command; see 'pelmorctl --help'"};
  const std::string& first = arguments.front();
  if (first == "--help" || first == "-h") return Task(ShowText{ProgramUsage()});
  if (first == "--version") return Task(ShowText{VersionText()});
  for (const Command& command : Commands()) {
    if (first != command.name) continue;
    auto task = ParseCommand(command, arguments.subspan(1));
    if (task) return task;
    return base::Failure{command.name + (": " + task.reason()) + "; see 'pelmorctl " +
                         command.name + " --help'"};
  }
  return base::Failure{"no command '" + first + "'; see 'pelmorctl --help'"};
}

base::Result<std::optional<RecordMetric>> ParseMetricLine(std::string_view line) {
  static const Option options[] = {kType, kLabel};
  const auto arguments = SplitLine(line);
  if (!arguments) return arguments.failure();
  if (arguments->empty()) return std::optional<RecordMetric>();
  const auto words = SplitWords(*arguments, options);
  if (!words) return words.failure();
  const auto record = ParseRecord(*words);
  if (!record) return record.failure();
  return std::optional(*record);
}

}  // namespace pelmorctl
