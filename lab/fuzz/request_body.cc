// Records any values and parses the posted bodies: they are JSON with exactly these values. Text
// that is not UTF-8, which the bus rejects, does not affect other text.

#include <algorithm>
#include <bit>
#include <cmath>
#include <map>
#include <nlohmann/json.hpp>

#include "base/logging.h"
#include "lab/fuzz/support.h"

namespace {

using nlohmann::json;

struct Metric {
  std::string name;
  std::map<std::string, std::string> labels;
  kestle::Any value;
  json expected;  // The member with the encoded value.
};

json Member(const char* key, json value) { return {{key, std::move(value)}}; }

constexpr char kRelease[] = "9000.1.0";

// Whether the input's texts are UTF-8.
bool g_is_utf8 = true;

std::string Text(FuzzedDataProvider* input) {
  return g_is_utf8 ? fuzz::BusText(input) : fuzz::AnyText(input);
}

void SetValue(FuzzedDataProvider* input, Metric* metric) {
  const auto bits = input->ConsumeIntegral<uint64_t>();
  const auto integer = [&](auto value) {
    metric->value = value;
    metric->expected = Member("int64Value", std::to_string(static_cast<int64_t>(value)));
  };
  switch (input->ConsumeIntegralInRange(0, 10)) {
    case 0:
      return integer(static_cast<uint8_t>(bits));
    case 1:
      return integer(static_cast<int16_t>(bits));
    case 2:
      return integer(static_cast<uint16_t>(bits));
    case 3:
      return integer(static_cast<int32_t>(bits));
    case 4:
      return integer(static_cast<uint32_t>(bits));
    case 5:
      return integer(static_cast<int64_t>(bits));
    case 6:
      return integer(bits);
    case 7: {
      const bool value = (bits & 1) != 0;
      metric->value = value;
      metric->expected = Member("boolValue", value);
      return;
    }
    case 8: {
      const auto value = std::bit_cast<double>(bits);
      metric->value = value;
      metric->expected = Member("doubleValue", std::isfinite(value) ? json(value) : json());
      return;
    }
    default: {
      const std::string value = Text(input);
      metric->value = value;
      metric->expected = Member("stringValue", value);
    }
  }
}

Metric AnyMetric(FuzzedDataProvider* input) {
  // Few names, so that points share one.
  Metric metric = {.name = input->ConsumeBool() ? Text(input) : "shared", .labels = {}};
  for (int left = input->ConsumeIntegralInRange(0, 3); left > 0; --left)
    metric.labels[Text(input)] = Text(input);
  SetValue(input, &metric);
  return metric;
}

// Points are ordered by name and then by the time of recording.
json ExpectedBody(std::vector<Metric> metrics) {
  const json now = {{"seconds", fuzz::kNow.ToTimeT()}};
  std::stable_sort(metrics.begin(), metrics.end(),
                   [](const Metric& a, const Metric& b) { return a.name < b.name; });
  json groups = json::array();
  for (const Metric& metric : metrics) {
    if (groups.empty() || groups.back().at("metricName") != metric.name)
      groups.push_back({{"metricName", metric.name}, {"points", json::array()}});
    json point = metric.expected;
    point["labels"] = json::object();
    for (const auto& [key, value] : metric.labels) point["labels"][key] = value;
    point["startTime"] = point["endTime"] = now;
    groups.back().at("points").push_back(point);
  }
  return {{"metricPoints", groups}};
}

// Compares texts, because -0.0 and 0.0, or 1 and 1.0, are equal as values.
void CheckSame(const std::string& body, const json& expected) {
  const json parsed = json::parse(body, nullptr, /*allow_exceptions=*/false);
  CHECK(!parsed.is_discarded()) << body;
  if (g_is_utf8) CHECK(parsed.dump() == expected.dump()) << body << " is not " << expected.dump();
}

// Decodes padded web-safe Base64.
std::string Decode(const std::string& text) {
  constexpr std::string_view kDigits =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
  CHECK(text.size() % 4 == 0);
  std::string bytes;
  uint32_t bits = 0;
  int count = 0;
  for (const char digit : text.substr(0, text.find('='))) {
    CHECK(kDigits.find(digit) != std::string_view::npos);
    bits = bits << 6 | static_cast<uint32_t>(kDigits.find(digit));
    count += 6;
    if (count < 8) continue;
    count -= 8;
    bytes.push_back(static_cast<char>(bits >> count));
  }
  return bytes;
}

// The encoded value of a log's body, after a check that it decodes to `bytes`.
std::string CheckedValue(const json& log, const std::string& bytes) {
  auto value = log.at("value").get<std::string>();
  CHECK(Decode(value) == bytes);
  return value;
}

void CheckLogs(const std::string& structured, const std::string& offline,
               const std::string& type_url, const std::string& bytes) {
  const json body = json::parse(structured, nullptr, /*allow_exceptions=*/false);
  CHECK(!body.is_discarded());
  const json log = {{"typeUrl", type_url}, {"value", CheckedValue(body, bytes)}};
  CheckSame(structured, log);
  CheckSame(
      offline,
      {{"properties",
        {{"softwareVersion", kRelease}, {"updateChannel", "unknown"}, {"hardwareId", "unknown"}}},
       {"deviceTimestamp", {{"seconds", fuzz::kNow.ToTimeT()}}},
       {"writeLog", {log}}});
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const fuzz::Quiet quiet;
  static fuzz::UploaderRig rig;
  FuzzedDataProvider input(data, size);
  g_is_utf8 = input.ConsumeIntegralInRange(0, 7) > 0;
  std::vector<Metric> metrics(input.ConsumeIntegralInRange<size_t>(1, 6));
  for (Metric& metric : metrics) {
    metric = AnyMetric(&input);
    rig.uploader()->RecordMetric(metric.name, metric.labels, metric.value);
  }
  const std::string type_url = Text(&input);
  const std::string bytes = input.ConsumeRemainingBytesAsString();
  rig.uploader()->RecordStructuredData(type_url, bytes);
  rig.uploader()->RecordOfflineData(type_url, bytes);

  const std::vector<std::string> bodies = rig.UploadedBodies();
  CHECK(bodies.size() == 3);
  CheckLogs(bodies[0], bodies[2], type_url, bytes);
  CheckSame(bodies[1], ExpectedBody(metrics));
  return 0;
}
