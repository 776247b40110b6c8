#include "pelmorctl/config_check.h"

#include <algorithm>
#include <map>
#include <string_view>
#include <utility>

#include "ap/common/configuration.h"
#include "base/files.h"
#include "kestle/key_value_store.h"
#include "pelmorctl/arguments.h"
#include "pelmorctl/config_values.h"
#include "pelmorctl/file_access.h"
#include "pelmorctl/files.h"

namespace pelmorctl {

namespace {

using kestle::KeyValueLine;
using kestle::ReadKeyValueLines;
using varelnos::ap::kClientSecretKey;
using varelnos::ap::kConfigurationKeys;

bool IsKnown(const std::string& key) {
  return std::find(std::begin(kConfigurationKeys), std::end(kConfigurationKeys), key) !=
         std::end(kConfigurationKeys);
}

// A slip may have made a key of a piece of the secret: only what can't be one is told.
std::string Tellable(const std::string& key) {
  constexpr std::string_view kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_";
  const bool tellable = key.starts_with("PELMOR_") && key.find("SECRET") == std::string::npos &&
                        key.find_first_not_of(kLetters) == std::string::npos;
  return tellable ? key : "the key of this line";
}

class Checker {
 public:
  void ReadMain(const ConfigFile& file);
  void ReadOverrides(const ConfigFile& file);
  ConfigReport Finish(const std::string& main_file);

 private:
  using Lines = std::vector<KeyValueLine>;

  void Add(Severity severity, const std::string& file, int line, const std::string& message) {
    report_.faults.push_back({severity, file, line, message});
  }
  void WarnOfReaders(const ConfigFile& file, const Lines& lines);
  void Merge(const std::string& file, const Lines& lines);

  ConfigReport report_;
  bool main_is_read_ = true;
  // With the secret's value, which stays here.
  std::map<std::string, Setting> settings_;
};

void Checker::ReadMain(const ConfigFile& file) {
  if (!file.text) {
    Add(Severity::kError, file.path, 0, file.why_unreadable);
    main_is_read_ = false;
    return;
  }
  const Lines lines = ReadKeyValueLines(*file.text);
  WarnOfReaders(file, lines);
  for (const KeyValueLine& line : lines) {
    if (!line.is_pair)
      Add(Severity::kError, file.path, line.number,
          "no KEY=VALUE, nor a comment, nor blank: the daemon refuses the file");
  }
  // What is wrong besides is told too, though the daemon would not come to it.
  Merge(file.path, lines);
}

void Checker::ReadOverrides(const ConfigFile& file) {
  if (!file.exists) return;
  if (!file.text) {
    if (!file.forbidden_to_us_alone) report_.ignored_file = file.path;
    Add(Severity::kWarning, file.path, 0,
        file.why_unreadable + (file.forbidden_to_us_alone ? "" : "; the daemon passes over it"));
    return;
  }
  const Lines lines = ReadKeyValueLines(*file.text);
  for (const KeyValueLine& line : lines) {
    if (line.is_pair) continue;
    report_.ignored_file = file.path;
    Add(Severity::kWarning, file.path, line.number,
        "no KEY=VALUE, nor a comment, nor blank: the daemon passes over the whole file");
  }
  WarnOfReaders(file, lines);
  if (report_.ignored_file.empty()) Merge(file.path, lines);
}

void Checker::WarnOfReaders(const ConfigFile& file, const Lines& lines) {
  const bool holds_secret = std::any_of(lines.begin(), lines.end(), [](const KeyValueLine& line) {
    return line.is_pair && line.key == kClientSecretKey && !line.value.empty();
  });
  if (holds_secret && !file.exposure.empty()) Add(Severity::kWarning, file.path, 0, file.exposure);
}

void Checker::Merge(const std::string& file, const Lines& lines) {
  std::map<std::string, int> seen;
  for (const KeyValueLine& line : lines) {
    if (!line.is_pair) continue;
    const auto [earlier, is_first] = seen.try_emplace(line.key, line.number);
    if (!is_first)
      Add(Severity::kWarning, file, line.number,
          Tellable(line.key) + " was set in line " + std::to_string(earlier->second) +
              " already; this later one wins");
    if (is_first && !IsKnown(line.key))
      Add(Severity::kWarning, file, line.number,
          Tellable(line.key) + " is none of the daemon's keys and has no effect");
    earlier->second = line.number;
    settings_[line.key] = {line.key, line.value, file, line.number};
  }
}

ConfigReport Checker::Finish(const std::string& main_file) {
  for (const char* const key : kConfigurationKeys) {
    const auto found = settings_.find(key);
    if (found == settings_.end()) {
      if (main_is_read_) Add(Severity::kError, main_file, 0, std::string(key) + " is missing");
      continue;
    }
    Setting& setting = found->second;
    for (const ValueFault& fault : CheckValue(key, setting.value))
      Add(fault.severity, setting.file, setting.line, std::string(key) + ": " + fault.message);
    if (setting.key == kClientSecretKey) setting.value.clear();
    report_.settings.push_back(setting);
  }
  return std::move(report_);
}

ConfigFile Read(const std::string& path, ReadOutcome* outcome) {
  ConfigFile file;
  file.path = path;
  file.exists = base::PathExists(path);
  std::string text;
  *outcome = ReadFile(path, &text, &file.why_unreadable);
  if (*outcome == ReadOutcome::kRead) file.text = std::move(text);
  return file;
}

}  // namespace

std::string Fault::Place() const { return line == 0 ? file : file + ":" + std::to_string(line); }

int ConfigReport::Count(Severity severity) const {
  return static_cast<int>(std::count_if(faults.begin(), faults.end(), [=](const Fault& fault) {
    return fault.severity == severity;
  }));
}

const Setting* ConfigReport::Find(const std::string& key) const {
  const auto found = std::find_if(settings.begin(), settings.end(),
                                  [&](const Setting& setting) { return setting.key == key; });
  return found == settings.end() ? nullptr : &*found;
}

ConfigFile ReadConfigFile(const std::string& path) {
  ReadOutcome outcome = ReadOutcome::kFailed;
  return Read(path, &outcome);
}

ConfigFile ReadConfigFile(const std::string& path, const Account& daemon) {
  ReadOutcome outcome = ReadOutcome::kFailed;
  ConfigFile file = Read(path, &outcome);
  if (outcome != ReadOutcome::kRead && outcome != ReadOutcome::kForbidden) return file;
  const FileAccess access = JudgeAccess(path, Content::kSecret, daemon);
  file.forbidden_to_us_alone = outcome == ReadOutcome::kForbidden && access.refusal.empty();
  if (!access.refusal.empty()) {
    file.text.reset();
    file.why_unreadable = access.refusal + "; " + access.remedy;
  }
  if (!access.exposure.empty()) file.exposure = access.exposure + "; " + access.remedy;
  return file;
}

ConfigReport CheckConfig(const ConfigFile& configuration, const ConfigFile& overrides) {
  Checker checker;
  checker.ReadMain(configuration);
  checker.ReadOverrides(overrides);
  return checker.Finish(configuration.path);
}

ConfigReport CheckConfigFiles(const std::string& configuration, const std::string& overrides,
                              const Account& daemon) {
  const auto read = [&](const std::string& path, const char* daemons_own) {
    return path == daemons_own ? ReadConfigFile(path, daemon) : ReadConfigFile(path);
  };
  return CheckConfig(read(configuration, varelnos::ap::kConfigurationFile),
                     read(overrides, varelnos::ap::kOverrideFile));
}

}  // namespace pelmorctl
