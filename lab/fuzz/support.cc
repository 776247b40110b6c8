#include "lab/fuzz/support.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "base/logging.h"

namespace fuzz {

Quiet::Quiet() {
  base::SetLogSink([](base::LogSeverity, const std::string&) {});
  GTEST_FLAG_SET(break_on_failure, true);
}

std::string AnyText(FuzzedDataProvider* input, size_t max_size) {
  return input->ConsumeRandomLengthString(max_size);
}

std::string BusText(FuzzedDataProvider* input, size_t max_size) {
  std::string text = AnyText(input, max_size);
  text = text.substr(0, text.find('\0'));
  // The writer replaces invalid UTF-8.
  const std::string quoted =
      nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  return nlohmann::json::parse(quoted).get<std::string>();
}

DeviceFiles::DeviceFiles() {
  root_.MakeFolder("/tmp/ap/pelmor");
  root_.MakeFolder("/var/lib/ap/pelmor");
  root_.Put("/etc/lsb-release", "VARELNOS_RELEASE_VERSION=9000.1.0\n");
  root_.Put("/etc/ap/pelmor.conf",
            "PELMOR_CLIENT_ID=i\nPELMOR_CLIENT_SECRET=s\nPELMOR_SCOPE=c\n"
            "PELMOR_URL=https://service/v1\nPELMOR_UPLOAD_INTERVAL_IN_SECONDS=300\n");
}

const DeviceFiles& DeviceFiles::Fresh() {
  static const DeviceFiles files;
  for (const char* const changed :
       {"/var/lib/ap/pelmor/refresh_token", varelnos::ap::kStartTimePath})
    unlink(files.root_.Real(changed).c_str());
  return files;
}

UploaderRig::UploaderRig() {
  DeviceFiles::Fresh();
  device_.Register("dev");
  oauth2_.HoldToken("token");
  clock_client_.AcquireNetworkTime();
  Restart();
}

void UploaderRig::Restart() {
  uploader_.reset();
  transport_ = std::make_shared<kestle::http::ScriptedTransport>();
  uploader_ = std::make_unique<varelnos::ap::Uploader>(
      &device_, &oauth2_, &metrics_, &clock_client_, "https://service/v1", transport_);
}

std::vector<varelnos::ap::MetricPoint> UploaderRig::TakePoints() {
  journal_.clear();
  uploader_->TakePointsForUpload();
  std::vector<varelnos::ap::MetricPoint> taken;
  for (const auto& [name, points] : uploader_->GroupPointsByName())
    for (const varelnos::ap::MetricPoint* const point : points) taken.push_back(*point);
  uploader_->ClearUploadPoints();
  return taken;
}

std::vector<std::string> UploaderRig::UploadedBodies() {
  constexpr int kAccepted = 200;
  uploader_->Upload();
  while (transport_->outstanding() > 0) transport_->Answer(kAccepted);
  journal_.clear();
  std::vector<std::string> bodies;
  while (!transport_->requests().empty()) bodies.push_back(transport_->TakeRequest().body);
  return bodies;
}

}  // namespace fuzz
