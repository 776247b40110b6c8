#include "pelmorctl/report.h"

#include <algorithm>
#include <utility>

#include "ap/common/configuration.h"
#include "base/json.h"
#include "base/printable.h"
#include "base/values.h"
#include "kestle/http/sendable_url.h"
#include "pelmorctl/usage.h"

namespace pelmorctl {

namespace {

constexpr char kGreen[] = "\033[32m";
constexpr char kRed[] = "\033[31m";
constexpr char kPlain[] = "\033[0m";
// Fits the longest name of a condition.
constexpr size_t kNameWidth = 20;

std::string Word(bool passed, bool colour) {
  const std::string word = passed ? "pass" : "FAIL";
  return colour ? (passed ? kGreen : kRed) + word + kPlain : word;
}

// A URL that requests may not be sent to may contain credentials.
std::string Shown(const Setting& setting) {
  const bool hidden = setting.key == varelnos::ap::kClientSecretKey ||
                      (setting.key == varelnos::ap::kUrlKey &&
                       !kestle::http::IsSendableUrl(setting.value, nullptr));
  return hidden ? "(not shown)" : setting.value;
}

}  // namespace

bool AllPassed(const std::vector<Condition>& conditions) {
  return std::all_of(conditions.begin(), conditions.end(),
                     [](const Condition& condition) { return condition.passed; });
}

std::vector<Condition> FailWarnings(std::vector<Condition> conditions) {
  for (Condition& condition : conditions) condition.passed &= condition.advice.empty();
  return conditions;
}

bool WantsColour(bool is_terminal, const char* no_color) {
  return is_terminal && !(no_color && *no_color);
}

std::string FormatConditions(const std::vector<Condition>& conditions, bool colour) {
  std::string text;
  for (const Condition& condition : conditions) {
    std::string name = condition.name;
    name.resize(std::max(kNameWidth, name.size() + 1), ' ');
    text +=
        Word(condition.passed, colour) + "  " + name + base::Printable(condition.finding) + "\n";
    if (!condition.passed) text += "      -> " + base::Printable(condition.advice) + "\n";
  }
  return text;
}

std::string FormatConditionsAsJson(const std::vector<Condition>& conditions) {
  base::ListValue list;
  for (const Condition& condition : conditions) {
    base::DictionaryValue entry;
    entry.SetString("name", condition.name);
    entry.SetBoolean("green", condition.passed);
    entry.SetString("finding", base::Printable(condition.finding));
    entry.SetString("advice", condition.passed ? "" : base::Printable(condition.advice));
    list.Append(std::move(entry));
  }
  base::DictionaryValue report;
  report.SetBoolean("healthy", AllPassed(conditions));
  report.SetString("version", Version());
  report.Set("conditions", std::move(list));
  std::string text;
  base::JSONWriter::Write(report, &text);
  return text + "\n";
}

std::string FormatConfigReport(const ConfigReport& report) {
  std::string text;
  for (const Setting& setting : report.settings)
    text += setting.file + ":" + std::to_string(setting.line) + ": " + setting.key + "=" +
            base::Printable(Shown(setting)) + "\n";
  for (const Fault& fault : report.faults)
    text += fault.Place() + (fault.severity == Severity::kError ? ": error: " : ": warning: ") +
            base::Printable(fault.message) + "\n";
  const int errors = report.Count(Severity::kError);
  const int warnings = report.Count(Severity::kWarning);
  text += errors == 0 ? "The daemon starts with this configuration"
                      : "The daemon does not start with this configuration";
  return text + " (errors: " + std::to_string(errors) + ", warnings: " + std::to_string(warnings) +
         ")\n";
}

}  // namespace pelmorctl
