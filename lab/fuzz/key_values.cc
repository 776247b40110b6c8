// Key=value files: the store and the checker of the configuration agree about what loads and what
// it holds, and a file that does not load leaves the store as it was.

#include <map>

#include "base/logging.h"
#include "base/testing/scoped_root.h"
#include "lab/fuzz/support.h"
#include "kestle/key_value_store.h"
#include "pelmorctl/config_check.h"
#include "pelmorctl/config_lines.h"

namespace {

constexpr char kPath[] = "/etc/ap/pelmor.conf";
constexpr char kMarker[] = "MARKER";

// Whether the lines are those of a file that loads; what it then holds.
bool Merge(const std::string& text, std::map<std::string, std::string>* pairs) {
  bool loads = true;
  for (const pelmorctl::ConfigLine& line : pelmorctl::ReadConfigLines(text)) {
    loads = loads && line.is_pair;
    (*pairs)[line.key] = line.value;
  }
  return loads;
}

void CheckTheReport(bool loads, const std::map<std::string, std::string>& pairs) {
  const pelmorctl::ConfigReport report =
      pelmorctl::CheckConfig(pelmorctl::ReadConfigFile(kPath), {"/none", false, {}, {}});
  CHECK(loads || report.Count(pelmorctl::Severity::kError) > 0);
  for (const pelmorctl::Setting& setting : report.settings) {
    CHECK(pairs.contains(setting.key));
    const bool is_secret = setting.key == pelmorctl::kSecretKey;
    CHECK(setting.value == (is_secret ? "" : pairs.at(setting.key)));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const fuzz::Quiet quiet;
  static const base::ScopedRoot root;
  const std::string text(reinterpret_cast<const char*>(data), size);

  kestle::KeyValueStore store;
  root.Put(kPath, std::string(kMarker) + "=before\n");
  CHECK(store.Load(base::FilePath(kPath)));
  root.Put(kPath, text);
  std::map<std::string, std::string> pairs = {{kMarker, "before"}};
  const bool loads = Merge(text, &pairs);
  CHECK(store.Load(base::FilePath(kPath)) == loads);
  std::string value;
  CHECK(store.GetString(kMarker, &value));
  if (!loads) CHECK(value == "before");
  for (const auto& [key, wanted] : pairs)
    if (loads) CHECK(store.GetString(key, &value) && value == wanted);
  CheckTheReport(loads, pairs);
  return 0;
}
