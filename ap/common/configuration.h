// The daemon's configuration: its files, keys and limits, and how it is loaded.
#pragma once

#include <cstddef>
#include <string>

#include "base/time.h"

namespace varelnos::ap {

inline constexpr char kConfigurationFile[] = "/etc/ap/pelmor.conf";
inline constexpr char kOverrideFile[] = "/var/lib/ap/pelmor.override";
inline constexpr char kRefreshTokenFile[] = "/var/lib/ap/pelmor/refresh_token";
inline constexpr char kReleaseFile[] = "/etc/lsb-release";
// Survives a restart of the daemon, but not of the device. Its folder must exist.
inline constexpr char kStartTimePath[] = "/tmp/ap/pelmor/uploader.start_time";
inline constexpr char kStartTimeFolder[] = "/tmp/ap/pelmor";

inline constexpr char kClientIdKey[] = "PELMOR_CLIENT_ID";
inline constexpr char kClientSecretKey[] = "PELMOR_CLIENT_SECRET";
inline constexpr char kScopeKey[] = "PELMOR_SCOPE";
inline constexpr char kUrlKey[] = "PELMOR_URL";
inline constexpr char kUploadIntervalKey[] = "PELMOR_UPLOAD_INTERVAL_IN_SECONDS";
// In the order in which they are read. All are mandatory.
inline constexpr const char* kConfigurationKeys[] = {kClientIdKey, kClientSecretKey, kScopeKey,
                                                     kUrlKey, kUploadIntervalKey};

inline constexpr size_t kMaxLogRecords = 20;
inline constexpr size_t kMaxUploadPoints = 1000;
inline constexpr base::TimeDelta kMaxPointAge = base::TimeDelta::FromMinutes(30);

struct Configuration {
  std::string client_id;
  std::string client_secret;
  std::string scope;
  std::string url;
  base::TimeDelta upload_interval;
};

// Merges the override file, if it exists and can be loaded, over the main file. Aborts if the main
// file can't be loaded, a key is missing or the interval is not a number.
Configuration LoadConfiguration();

}  // namespace varelnos::ap
