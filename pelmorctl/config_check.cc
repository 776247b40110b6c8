#include "pelmorctl/config_check.h"

#include <algorithm>
#include <map>
#include <string_view>
#include <utility>

#include "ap/common/configuration.h"
#include "base/files.h"
#include "kestle/key_value_store.h"
#include "pelmorctl/file_access.h"

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

// A typo can turn part of the secret into a key, so an unlikely key is not quoted.
std::string Quotable(const std::string& key) {
  constexpr std::string_view kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_";
  const bool quotable = key.starts_with("PELMOR_") && key.find("SECRET") == std::string::npos &&
                        key.find_first_not_of(kLetters) == std::string::npos;
  return quotable ? key : "the key of this line";
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
  // Includes the secret's value, which is not copied to the report.
  std::map<std::string, Setting> settings_;
};

void Checker::ReadMain(const ConfigFile& file) {
  if (!file.text) {
    Add(Severity::kError, file.path, 0, file.text.reason());
    main_is_read_ = false;
    return;
  }
  const Lines lines = ReadKeyValueLines(*file.text);
  WarnOfReaders(file, lines);
  for (const KeyValueLine& line : lines) {
    if (!line.is_pair)
      Add(Severity::kError, file.path, line.number,
          "neither KEY=VALUE nor a comment nor blank: the daemon rejects the file");
  }
  // Reports further faults too, although the daemon stops at the first.
  Merge(file.path, lines);
}

void Checker::ReadOverrides(const ConfigFile& file) {
  if (!file.exists) return;
  if (!file.text) {
    if (!file.forbidden_to_us_alone) report_.ignored_file = file.path;
    Add(Severity::kWarning, file.path, 0,
        file.text.reason() + (file.forbidden_to_us_alone ? "" : "; the daemon ignores it"));
    return;
  }
  const Lines lines = ReadKeyValueLines(*file.text);
  for (const KeyValueLine& line : lines) {
    if (line.is_pair) continue;
    report_.ignored_file = file.path;
    Add(Severity::kWarning, file.path, line.number,
        "neither KEY=VALUE nor a comment nor blank: the daemon ignores the whole file");
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
          Quotable(line.key) + " is also set in line " + std::to_string(earlier->second) +
              "; this later line wins");
    if (is_first && !IsKnown(line.key))
      Add(Severity::kWarning, file, line.number,
          Quotable(line.key) + " is not one of the daemon's keys and has no effect");
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
  return {.path = path, .exists = base::PathExists(path), .text = ReadFile(path)};
}

ConfigFile ReadConfigFile(const std::string& path, const Account& daemon) {
  ConfigFile file = ReadConfigFile(path);
  const bool forbidden = !file.text && file.text.failure().error == ReadError::kForbidden;
  if (!file.text && !forbidden) return file;
  const FileAccess access = JudgeAccess(path, Content::kSecret, daemon);
  file.forbidden_to_us_alone = forbidden && access.refusal.empty();
  if (!access.refusal.empty()) file.text = ReadFailure{{access.refusal + "; " + access.remedy}};
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
