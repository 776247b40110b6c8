// What the caller wants, from the command line.
#pragma once

#include <map>
#include <optional>
#include <span>
#include <string>
#include <variant>

#include "ap/common/configuration.h"
#include "kestle/any.h"

namespace pelmorctl {

// Stands for the standard input.
inline constexpr char kStandardInput[] = "-";

// Texts to print, and nothing else to do.
struct ShowText {
  std::string text;
};
struct RecordMetric {
  std::string name;
  std::map<std::string, std::string> labels;
  kestle::Any value;
};
enum class DataKind { kStructured, kOffline };
struct RecordData {
  DataKind kind = DataKind::kStructured;
  std::string type_url;
  std::string file = kStandardInput;
};
struct CheckConfiguration {
  std::string file = varelnos::ap::kConfigurationFile;
  std::string override_file = varelnos::ap::kOverrideFile;
};
struct RunDoctor {
  bool json = false;
};
struct ShowStatus {
  bool json = false;
  bool watch = false;
};
using Task =
    std::variant<ShowText, RecordMetric, RecordData, CheckConfiguration, ShowStatus, RunDoctor>;

// `arguments` are those after the program's name. On a mistake returns nothing and says in
// `complaint` what is wrong and what to do.
std::optional<Task> ParseArguments(std::span<const std::string> arguments, std::string* complaint);

}  // namespace pelmorctl
