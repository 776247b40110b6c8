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
// The longest name of a condition, and a gap.
constexpr size_t kNameWidth = 20;

std::string Word(bool green, bool colour) {
  const std::string word = green ? "ok " : "RED";
  return colour ? (green ? kGreen : kRed) + word + kPlain : word;
}

// A URL that can't be sent to may carry credentials.
std::string Shown(const Setting& setting) {
  const bool hidden = setting.key == varelnos::ap::kClientSecretKey ||
                      (setting.key == varelnos::ap::kUrlKey &&
                       !kestle::http::IsSendableUrl(setting.value, nullptr));
  return hidden ? "(not shown)" : setting.value;
}

}  // namespace

bool AllGreen(const std::vector<Condition>& conditions) {
  return std::all_of(conditions.begin(), conditions.end(),
                     [](const Condition& condition) { return condition.green; });
}

bool WantsColour(bool is_terminal, const char* no_color) {
  return is_terminal && !(no_color && *no_color);
}

std::string FormatConditions(const std::vector<Condition>& conditions, bool colour) {
  std::string text;
  for (const Condition& condition : conditions) {
    std::string name = condition.name;
    name.resize(std::max(kNameWidth, name.size() + 1), ' ');
    text += Word(condition.green, colour) + "  " + name + base::Printable(condition.finding) + "\n";
    if (!condition.green) text += "     -> " + base::Printable(condition.advice) + "\n";
  }
  return text;
}

std::string FormatConditionsAsJson(const std::vector<Condition>& conditions) {
  base::ListValue list;
  for (const Condition& condition : conditions) {
    base::DictionaryValue entry;
    entry.SetString("name", condition.name);
    entry.SetBoolean("green", condition.green);
    entry.SetString("finding", base::Printable(condition.finding));
    entry.SetString("advice", base::Printable(condition.advice));
    list.Append(std::move(entry));
  }
  base::DictionaryValue report;
  report.SetBoolean("healthy", AllGreen(conditions));
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
