// The command line, parsed into the task to perform.
#pragma once

#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>

#include "ap/common/configuration.h"
#include "base/result.h"
#include "kestle/any.h"

namespace pelmorctl {

// Denotes standard input.
inline constexpr char kStandardInput[] = "-";

// The help or the version.
struct ShowText {
  std::string text;
};
struct ShowVersions {
  std::string daemon_file;
};
struct RecordMetric {
  std::string name;
  std::map<std::string, std::string> labels;
  kestle::Any value;
};
// The records are lines of standard input.
struct StreamMetrics {};
enum class DataKind { kStructured, kOffline };
struct RecordData {
  DataKind kind = DataKind::kStructured;
  std::string type_url;
  std::string file = kStandardInput;
};
struct CheckConfiguration {
  std::string file = varelnos::ap::kConfigurationFile;
  std::string override_file = varelnos::ap::kOverrideFile;
  bool strict = false;  // Warnings count as failures.
};
struct RunDoctor {
  bool json = false;
  bool strict = false;  // The same.
};
struct ShowStatus {
  bool json = false;
  bool watch = false;
};
using Task = std::variant<ShowText, RecordMetric, StreamMetrics, RecordData, CheckConfiguration,
                          ShowStatus, RunDoctor, ShowVersions>;

// `arguments` are those after the program's name.
base::Result<Task> ParseArguments(std::span<const std::string> arguments);
// A line of a stream: the words that follow `pelmorctl metric`. Null for a line without words.
base::Result<std::optional<RecordMetric>> ParseMetricLine(std::string_view line);

}  // namespace pelmorctl
