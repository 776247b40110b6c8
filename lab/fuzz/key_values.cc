// Key=value files: a file loads exactly if all its lines are pairs, and otherwise leaves the store
// unchanged; the checker of the configuration reports an error for each file that does not load. Of
// several values of a key, both have the last.

#include <map>
#include <string>

#include "ap/common/configuration.h"
#include "base/logging.h"
#include "base/testing/scoped_root.h"
#include "kestle/key_value_store.h"
#include "lab/fuzz/support.h"
#include "pelmorctl/config_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const fuzz::Quiet quiet;
  static const base::ScopedRoot root;
  constexpr const char* kPath = varelnos::ap::kConfigurationFile;
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::map<std::string, std::string> pairs;
  bool loads = true;
  for (const kestle::KeyValueLine& line : kestle::ReadKeyValueLines(text)) {
    loads = loads && line.is_pair;
    pairs[line.key] = line.value;
  }

  kestle::KeyValueStore store;
  root.Put(kPath, "MARKER=before\n");
  CHECK(store.Load(kPath));
  root.Put(kPath, text);
  CHECK(store.Load(kPath) == loads);
  std::string value;
  CHECK(store.GetString("MARKER", &value));
  if (!loads) CHECK(value == "before");
  for (const auto& [key, wanted] : pairs)
    if (loads) CHECK(store.GetString(key, &value) && value == wanted);

  const pelmorctl::ConfigReport report =
      pelmorctl::CheckConfig(pelmorctl::ReadConfigFile(kPath),
                             {.path = "/none", .exists = false, .text = pelmorctl::ReadFailure{}});
  CHECK(loads || report.Count(pelmorctl::Severity::kError) > 0);
  for (const pelmorctl::Setting& setting : report.settings) {
    CHECK(pairs.contains(setting.key));
    const bool is_secret = setting.key == varelnos::ap::kClientSecretKey;
    CHECK(setting.value == (is_secret ? "" : pairs.at(setting.key)));
  }
  return 0;
}
