// The start-time file: if it contains a number and nothing else, that is the start time of every
// request; otherwise the file is ignored and replaced by the time of the first point.

#include <charconv>
#include <nlohmann/json.hpp>

#include "ap/pelmor/wire_time.h"
#include "base/logging.h"
#include "lab/fuzz/support.h"

namespace {

using nlohmann::json;

// A second implementation of the rule: digits after an optional minus sign, in 64 bits.
bool IsNumber(const std::string& text, int64_t* number) {
  const char* const end = text.data() + text.size();
  const size_t digits = text.find_first_not_of("0123456789", text.starts_with('-') ? 1 : 0);
  const auto [stop, error] = std::from_chars(text.data(), end, *number);
  return digits == std::string::npos && error == std::errc() && stop == end;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const fuzz::Quiet quiet;
  static fuzz::UploaderRig rig;
  const std::string text(reinterpret_cast<const char*>(data), size);
  const base::ScopedRoot& root = fuzz::DeviceFiles::Fresh().root();
  root.Put(varelnos::ap::kStartTimePath, text);
  rig.Restart();
  rig.uploader()->RecordMetric("m", {}, 1);
  const json body = json::parse(rig.UploadedBodies().at(0));

  int64_t number = 0;
  // Zero means no start time.
  const bool is_set = IsNumber(text, &number) && number != 0;
  const base::Time start = is_set ? base::Time::FromInternalValue(number) : fuzz::kNow;
  const json& point = body.at("metricPoints").at(0).at("points").at(0);
  CHECK(point.at("startTime").at("seconds") == varelnos::ap::WireSeconds(start));
  CHECK(point.at("endTime").at("seconds") == varelnos::ap::WireSeconds(fuzz::kNow));
  CHECK(root.Get(varelnos::ap::kStartTimePath) ==
        (is_set ? text : std::to_string(fuzz::kNow.ToInternalValue())));
  return 0;
}
