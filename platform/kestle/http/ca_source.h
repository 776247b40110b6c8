// Where libcurl finds the system's CAs: in one file, the bundle, or in a folder with a link to each
// CA by the hash of its subject. From such a folder OpenSSL reads only the CAs that a server needs,
// while the parsed bundle takes 0.8 MB and 30 ms.
//
// Invariant: the bundle alone decides which CAs are trusted. The folder is used only while the
// certificates that its links lead to are those of the bundle. A link under the wrong hash is not
// noticed, but OpenSSL does not find its CA then; `RejectFolder` is for that case.
//
// Describes the CAs as they were at one time; when it is outdated, a new one is needed.
#pragma once

#include <sys/stat.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "base/time.h"

namespace kestle::http {

class CaSource {
 public:
  // What libcurl was built with.
  static CaSource OfLibcurl();

  // A path is empty if there is none. `reads_on_demand`: the TLS library does not read the whole
  // folder.
  CaSource(std::string bundle, std::string folder, bool reads_on_demand);

  // True if the folder is to be used and not the bundle. Reads both on the first call.
  [[nodiscard]] bool UsesFolder();
  // From now on the bundle is used.
  void RejectFolder() { uses_folder_ = false; }
  // True once bundle or folder have changed since the first call of `UsesFolder`, and an hour after
  // it, since a file that a link leads to may have changed.
  [[nodiscard]] bool IsOutdated() const;

  // Empty if libcurl was built without a bundle, and so uses its folder in its own way.
  [[nodiscard]] const std::string& bundle() const { return bundle_; }
  [[nodiscard]] const std::string& folder() const { return folder_; }

 private:
  // Of a file or folder; zeros if it does not exist.
  using State = std::array<int64_t, 5>;

  static State StateOf(const std::string& path);
  [[nodiscard]] bool FolderHasTheBundlesCas() const;

  std::string bundle_;
  std::string folder_;
  bool reads_on_demand_;
  std::optional<bool> uses_folder_;
  base::TimeTicks read_at_;
  State bundle_state_{};
  State folder_state_{};
};

}  // namespace kestle::http
