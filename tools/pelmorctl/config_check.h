// The daemon's configuration, read as the daemon does at its start, with each fault in its place.
//
// An error is what stops the daemon; a warning is what it starts with, but hardly as meant. Nothing
// here holds or tells the client secret, nor a key or a line that a slip may have put it into.
#pragma once

#include <optional>
#include <string>
#include <vector>

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
};

struct ConfigReport {
  // The daemon's keys, in the order that it reads them; those that are not set are not there.
  std::vector<Setting> settings;
  std::vector<Fault> faults;

  int Count(Severity severity) const;
  // Null when it is not set.
  const Setting* Find(const std::string& key) const;
};

inline constexpr char kUrlKey[] = "PELMOR_URL";
inline constexpr char kSecretKey[] = "PELMOR_CLIENT_SECRET";

ConfigFile ReadConfigFile(const std::string& path);

ConfigReport CheckConfig(const ConfigFile& configuration, const ConfigFile& overrides);

}  // namespace pelmorctl
