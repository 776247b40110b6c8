#include "ap/common/configuration.h"

#include "base/files.h"
#include "base/logging.h"
#include "base/strings.h"
#include "kestle/key_value_store.h"

namespace varelnos::ap {

namespace {

kestle::KeyValueStore LoadFiles() {
  kestle::KeyValueStore configuration;
  CHECK(configuration.Load(base::FilePath(kConfigurationFile)));
  if (base::PathExists(kOverrideFile) && !configuration.Load(kOverrideFile))
    LOG(WARNING) << "Failed to load configuration overrides " << kOverrideFile;
  return configuration;
}

}  // namespace

Configuration LoadConfiguration() {
  const kestle::KeyValueStore configuration = LoadFiles();
  std::string client_id;
  std::string client_secret;
  std::string scope;
  std::string url;
  std::string upload_interval_string;
  // Never takes effect: a missing interval is as fatal as a malformed one.
  int upload_interval_in_seconds = 600;
  // The keys are literals because a failed check prints its condition.
  CHECK(configuration.GetString("PELMOR_CLIENT_ID", &client_id) &&
        configuration.GetString("PELMOR_CLIENT_SECRET", &client_secret) &&
        configuration.GetString("PELMOR_SCOPE", &scope) &&
        configuration.GetString("PELMOR_URL", &url) &&
        configuration.GetString("PELMOR_UPLOAD_INTERVAL_IN_SECONDS", &upload_interval_string) &&
        base::StringToInt(upload_interval_string, &upload_interval_in_seconds))
      << "Failed to read configuration";
  return {client_id, client_secret, scope, url,
          base::TimeDelta::FromSeconds(upload_interval_in_seconds)};
}

}  // namespace varelnos::ap
