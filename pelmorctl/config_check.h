// Checks the daemon's configuration as the daemon reads it at its start, and gives each fault its
// file and line.
//
// The client secret is never part of a result, nor is a key or a line that a typo may have turned
// it into.
#pragma once

#include <string>
#include <vector>

#include "pelmorctl/account.h"
#include "pelmorctl/config_values.h"
#include "pelmorctl/files.h"

namespace pelmorctl {

struct Fault {
  Severity severity = Severity::kError;
  std::string file;
  int line = 0;  // 0 for the whole file.
  std::string message;

  // "/etc/ap/pelmor.conf:3"
  [[nodiscard]] std::string Place() const;

  bool operator==(const Fault&) const = default;
};

// A key in effect, and where it was set.
struct Setting {
  std::string key;
  std::string value;  // Empty for the secret.
  std::string file;
  int line = 0;
};

struct ConfigFile {
  std::string path;
  bool exists = true;
  FileText text;
  // The daemon may read the file, but we may not.
  bool forbidden_to_us_alone = false;
  // Who else can read the file, and how to fix that; reported if it has the secret. May be empty.
  std::string exposure = {};
};

struct ConfigReport {
  // The daemon's keys that are set, in the order in which it reads them.
  std::vector<Setting> settings;
  std::vector<Fault> faults;
  // The override file, if it exists and the daemon ignores it.
  std::string ignored_file;

  [[nodiscard]] int Count(Severity severity) const;
  // Null if the key is not set.
  [[nodiscard]] const Setting* Find(const std::string& key) const;
};

// A file that is not the daemon's own: only its content is checked.
ConfigFile ReadConfigFile(const std::string& path);
// The daemon's own file: a failure if the daemon's account can't read it.
ConfigFile ReadConfigFile(const std::string& path, const Account& daemon);

ConfigReport CheckConfig(const ConfigFile& configuration, const ConfigFile& overrides);

// Reads both files, and checks the access to those that are the daemon's own.
ConfigReport CheckConfigFiles(const std::string& configuration, const std::string& overrides,
                              const Account& daemon);

}  // namespace pelmorctl
