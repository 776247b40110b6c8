#include "fuzz/support.h"

#include <gtest/gtest.h>

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
  // The writer replaces what is no UTF-8.
  const std::string quoted =
      nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  return nlohmann::json::parse(quoted).get<std::string>();
}

UploaderRig::UploaderRig() {
  root_.MakeFolder("/tmp/ap/pelmor");
  root_.Put("/etc/lsb-release", "VARELNOS_RELEASE_VERSION=9000.1.0\n");
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

size_t UploaderRig::TakePoints() {
  journal_.clear();
  uploader_->TakePointsForUpload();
  size_t count = 0;
  for (const auto& [name, points] : uploader_->GroupPointsByName()) count += points.size();
  uploader_->ClearUploadPoints();
  return count;
}

std::vector<std::string> UploaderRig::UploadedBodies() {
  uploader_->Upload();
  journal_.clear();
  std::vector<std::string> bodies;
  while (!transport_->requests().empty()) bodies.push_back(transport_->TakeRequest().body);
  return bodies;
}

}  // namespace fuzz
