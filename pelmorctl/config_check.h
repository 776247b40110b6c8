// The daemon's configuration, read as the daemon does at its start, with each fault in its place.
//
// An error is what stops the daemon; a warning is what it starts with, but hardly as meant. Nothing
// here holds or tells the client secret, nor a key or a line that a slip may have put it into.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "pelmorctl/account.h"

namespace pelmorctl {

enum class Severity { kWarning, kError };

struct Fault {
  Severity severity = Severity::kError;
  std::string file;
  int line = 0;  // 0: the file as a whole.
  std::string message;

  // "/etc/ap/pelmor.conf:3"
  std::string Place() const;

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
  std::optional<std::string> text;
  std::string why_unreadable;  // Without a text.
  // Only we have no right to read it: whether it is well is not known.
  bool forbidden_to_us_alone = false;
  // What to do about those who should not be able to read it, if it holds the secret. May be empty.
  std::string exposure = {};
};

struct ConfigReport {
  // The daemon's keys, in the order that it reads them; those that are not set are not there.
  std::vector<Setting> settings;
  std::vector<Fault> faults;
  // The override file, when it is there and the daemon passes over it.
  std::string ignored_file;

  int Count(Severity severity) const;
  // Null when it is not set.
  const Setting* Find(const std::string& key) const;
};

// A file that will be the daemon's, of which nothing but the content counts.
ConfigFile ReadConfigFile(const std::string& path);
// The daemon's own: a file that its account can't read has no text.
ConfigFile ReadConfigFile(const std::string& path, const Account& daemon);

ConfigReport CheckConfig(const ConfigFile& configuration, const ConfigFile& overrides);

// The same of files, by their paths, for the account of the daemon.
ConfigReport CheckConfigFiles(const std::string& configuration, const std::string& overrides,
                              const Account& daemon);

}  // namespace pelmorctl
