#include "pelmorctl/arguments.h"

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
constexpr Option kConfig{"--config", 0, true};
constexpr Option kOverride{"--override", 0, true};
constexpr Option kJson{"--json", 0, false};
constexpr Option kWatch{"--watch", 0, false};

using Complaint = std::string*;

bool CheckText(const char* what, const std::string& text, Complaint complaint) {
  if (text.empty()) {
    *complaint = std::string("the ") + what + " is empty";
  } else if (!dbus::IsText(text)) {
    *complaint = std::string("the ") + what + " is no UTF-8 text that the bus carries";
  } else {
    return true;
  }
  return false;
}

bool AddLabel(const std::string& text, std::map<std::string, std::string>* labels,
              Complaint complaint) {
  const size_t equals = text.find('=');
  if (equals == std::string::npos || equals == 0) {
    *complaint = "'" + text + "' is no label: give KEY=VALUE";
    return false;
  }
  if (!CheckText("label", text, complaint)) return false;
  const std::string key = text.substr(0, equals);
  if (labels->emplace(key, text.substr(equals + 1)).second) return true;
  *complaint = "the label '" + key + "' is given twice";
  return false;
}

std::optional<Task> ParseMetric(const Words& words, Complaint complaint) {
  if (words.positionals.size() != 2) {
    *complaint = "give a NAME and a VALUE";
    return std::nullopt;
  }
  RecordMetric task;
  task.name = words.positionals[0];
  if (!CheckText("name", task.name, complaint)) return std::nullopt;
  std::optional<ValueType> type;
  if (const auto name = words.Last(kType.name)) {
    type = ParseValueType(*name);
    if (!type) {
      *complaint = "no type '" + *name + "'; there are int64, double, bool and string";
      return std::nullopt;
    }
  }
  const std::optional<kestle::Any> value = ParseMetricValue(words.positionals[1], type, complaint);
  if (!value) return std::nullopt;
  task.value = *value;
  for (const auto& [option, text] : words.options) {
    if (option == kLabel.name && !AddLabel(text, &task.labels, complaint)) return std::nullopt;
  }
  return task;
}

std::optional<Task> ParseData(DataKind kind, const Words& words, Complaint complaint) {
  if (words.positionals.empty() || words.positionals.size() > 2) {
    *complaint = "give a TYPE_URL, and at most one FILE";
    return std::nullopt;
  }
  RecordData task{kind, words.positionals[0]};
  if (words.positionals.size() == 2) task.file = words.positionals[1];
  if (!CheckText("type URL", task.type_url, complaint)) return std::nullopt;
  return task;
}

std::optional<Task> ParseStructured(const Words& words, Complaint complaint) {
  return ParseData(DataKind::kStructured, words, complaint);
}

std::optional<Task> ParseOffline(const Words& words, Complaint complaint) {
  return ParseData(DataKind::kOffline, words, complaint);
}

bool TakesNoPositionals(const Words& words, Complaint complaint) {
  if (words.positionals.empty()) return true;
  *complaint = "unexpected argument '" + words.positionals[0] + "'";
  return false;
}

std::optional<Task> ParseCheckConfig(const Words& words, Complaint complaint) {
  if (!TakesNoPositionals(words, complaint)) return std::nullopt;
  CheckConfiguration task;
  task.file = words.Last(kConfig.name).value_or(task.file);
  task.override_file = words.Last(kOverride.name).value_or(task.override_file);
  return task;
}

std::optional<Task> ParseStatus(const Words& words, Complaint complaint) {
  if (!TakesNoPositionals(words, complaint)) return std::nullopt;
  return ShowStatus{words.Has(kJson.name), words.Has(kWatch.name)};
}

std::optional<Task> ParseDoctor(const Words& words, Complaint complaint) {
  if (!TakesNoPositionals(words, complaint)) return std::nullopt;
  return RunDoctor{words.Has(kJson.name)};
}

struct Command {
  const char* name;
  std::vector<Option> options;
  std::optional<Task> (*parse)(const Words& words, Complaint complaint);
};

const std::vector<Command>& Commands() {
  static const std::vector<Command> commands = {
      {"metric", {kHelp, kType, kLabel}, &ParseMetric},
      {"structured", {kHelp}, &ParseStructured},
      {"offline", {kHelp}, &ParseOffline},
      {"check-config", {kHelp, kConfig, kOverride}, &ParseCheckConfig},
      {"status", {kHelp, kJson, kWatch}, &ParseStatus},
      {"doctor", {kHelp, kJson}, &ParseDoctor}};
  return commands;
}

std::optional<Task> ParseCommand(const Command& command, std::span<const std::string> arguments,
                                 Complaint complaint) {
  const std::optional<Words> words = SplitWords(arguments, command.options, complaint);
  if (words && words->Has(kHelp.name)) return ShowText{CommandUsage(command.name)};
  std::optional<Task> task = words ? command.parse(*words, complaint) : std::nullopt;
  if (!task)
    *complaint = std::string(command.name) + ": " + *complaint + "; see 'pelmorctl " +
                 command.name + " --help'";
  return task;
}

}  // namespace

std::optional<Task> ParseArguments(std::span<const std::string> arguments, Complaint complaint) {
  if (arguments.empty()) {
    *complaint = "no command; see 'pelmorctl --help'";
    return std::nullopt;
  }
  const std::string& first = arguments.front();
  if (first == "--help" || first == "-h") return ShowText{ProgramUsage()};
  if (first == "--version") return ShowText{VersionText()};
  for (const Command& command : Commands()) {
    if (first == command.name) return ParseCommand(command, arguments.subspan(1), complaint);
  }
  *complaint = "no command '" + first + "'; see 'pelmorctl --help'";
  return std::nullopt;
}

}  // namespace pelmorctl
