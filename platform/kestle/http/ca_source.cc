#include "kestle/http/ca_source.h"

#include <curl/curl.h>
#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <set>
#include <string_view>
#include <utility>

namespace kestle::http {

namespace {

// How long a state of the CAs is used if no change of it is visible.
constexpr auto kCasTtl = base::TimeDelta::FromMinutes(60);

// Hashes of certificates, which need far less memory than their texts.
using CertificateSet = std::set<size_t>;

struct FileCloser {
  void operator()(FILE* file) const { fclose(file); }
};
struct FolderCloser {
  void operator()(DIR* folder) const { closedir(folder); }
};

// Null if it is not a regular file that can be read.
std::unique_ptr<FILE, FileCloser> OpenRegular(int folder, const char* name) {
  // A blocking open of a pipe would wait for a writer.
  const int fd = openat(folder, name, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) return nullptr;
  struct stat status {};
  std::unique_ptr<FILE, FileCloser> file(fdopen(fd, "r"));
  return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) ? std::move(file) : nullptr;
}

// Adds the PEM blocks of a file, of any label, and returns their number.
size_t AddCertificates(int folder, const char* name, CertificateSet* certificates) {
  const auto file = OpenRegular(folder, name);
  if (!file) return 0;
  size_t count = 0;
  std::string block;
  char* line = nullptr;
  size_t room = 0;
  while (getline(&line, &room, file.get()) > 0) {
    std::string_view text = line;
    // The last line of a file may have no end, which it needs within the bundle.
    text = text.substr(0, text.find_last_not_of("\r\n") + 1);
    if (block.empty() && !text.starts_with("-----BEGIN ")) continue;
    block.append(text) += '\n';
    if (!text.starts_with("-----END ")) continue;
    certificates->insert(std::hash<std::string>()(block));
    block.clear();
    ++count;
  }
  free(line);
  return count;
}

// A name under which OpenSSL looks for a CA: "<hash>.<number>".
bool IsLinkName(std::string_view name) {
  constexpr size_t kHashDigits = 8;
  constexpr std::string_view kDecimal = "0123456789";
  constexpr std::string_view kHexadecimal = "0123456789abcdef";
  return name.size() > kHashDigits + 1 && name.find_first_not_of(kHexadecimal) == kHashDigits &&
         name[kHashDigits] == '.' &&
         name.find_first_not_of(kDecimal, kHashDigits + 1) == std::string_view::npos;
}

int64_t Nanoseconds(const timespec& time) {
  constexpr int64_t kInSecond = 1'000'000'000;
  return int64_t{time.tv_sec} * kInSecond + time.tv_nsec;
}

}  // namespace

CaSource CaSource::OfLibcurl() {
  const curl_version_info_data& info = *curl_version_info(CURLVERSION_NOW);
  return {info.cainfo ? info.cainfo : "", info.capath ? info.capath : "",
          std::string_view(info.ssl_version).starts_with("OpenSSL/")};
}

CaSource::CaSource(std::string bundle, std::string folder, bool reads_on_demand)
    : bundle_(std::move(bundle)), folder_(std::move(folder)), reads_on_demand_(reads_on_demand) {}

bool CaSource::UsesFolder() {
  if (!uses_folder_) {
    read_at_ = base::TimeTicks::Now();
    // Before the contents, so that a change during the reading makes them outdated.
    bundle_state_ = StateOf(bundle_);
    folder_state_ = StateOf(folder_);
    uses_folder_ = reads_on_demand_ && FolderHasTheBundlesCas();
  }
  return *uses_folder_;
}

bool CaSource::IsOutdated() const {
  return uses_folder_ && (StateOf(bundle_) != bundle_state_ || StateOf(folder_) != folder_state_ ||
                          base::TimeTicks::Now() - read_at_ >= kCasTtl);
}

CaSource::State CaSource::StateOf(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return {};
  return {static_cast<int64_t>(status.st_dev), static_cast<int64_t>(status.st_ino),
          static_cast<int64_t>(status.st_size), Nanoseconds(status.st_mtim),
          Nanoseconds(status.st_ctim)};
}

bool CaSource::FolderHasTheBundlesCas() const {
  const std::unique_ptr<DIR, FolderCloser> folder(opendir(folder_.c_str()));
  if (!folder) return false;
  CertificateSet in_folder;
  // cppcheck-suppress readdirCalled; there is one thread.
  while (const dirent* const entry = readdir(folder.get())) {
    if (!IsLinkName(entry->d_name)) continue;
    // OpenSSL's own tools make no link to several certificates, nor does a link lead nowhere.
    if (AddCertificates(dirfd(folder.get()), entry->d_name, &in_folder) != 1) return false;
  }
  if (in_folder.empty()) return false;
  CertificateSet in_bundle;
  AddCertificates(AT_FDCWD, bundle_.c_str(), &in_bundle);
  return in_folder == in_bundle;
}

}  // namespace kestle::http
