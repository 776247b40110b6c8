// The least work that writes points in the service's format: each byte is appended directly,
// without intermediate values. Numbers are formatted by the standard library.
#include <array>
#include <charconv>
#include <cstdio>
#include <string>
#include <string_view>

#include "ap/pelmor/wire_time.h"
#include "check.h"
#include "process/points.h"

namespace bench {

namespace {

using varelnos::ap::MetricPoint;

void AppendEscaped(std::string* out, char character) {
  std::array<char, 8> text{};
  const int length = character == '"' || character == '\\'
                         ? snprintf(text.data(), text.size(), "\\%c", character)
                         : snprintf(text.data(), text.size(), "\\u%04x", character);
  out->append(text.data(), static_cast<size_t>(length));
}

void AppendString(std::string* out, std::string_view value) {
  constexpr char kFirstPrintable = ' ';
  *out += '"';
  for (const char character : value) {
    const bool plain = static_cast<unsigned char>(character) >= kFirstPrintable &&
                       character != '"' && character != '\\';
    if (plain)
      *out += character;
    else
      AppendEscaped(out, character);
  }
  *out += '"';
}

template <typename Number>
void AppendNumber(std::string* out, Number value) {
  std::array<char, 32> text{};
  const auto [end, error] = std::to_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc()) Fail("number", "too long");
  const std::string_view digits(text.data(), static_cast<size_t>(end - text.data()));
  out->append(digits);
  // Keeps a whole double distinguishable from an integer.
  if (std::is_floating_point_v<Number> && digits.find_first_of(".e") == std::string_view::npos)
    out->append(".0");
}

void AppendPoint(std::string* out, const MetricPoint& point, base::Time start_time) {
  out->append(R"({"doubleValue":)");
  AppendNumber(out, *point.value.TryGet<double>());
  out->append(R"(,"endTime":{"seconds":)");
  AppendNumber(out, varelnos::ap::WireSeconds(point.timestamp));
  out->append(R"(},"labels":{)");
  const char* separator = "";
  for (const auto& [key, value] : point.labels) {
    out->append(separator);
    AppendString(out, key);
    *out += ':';
    AppendString(out, value);
    separator = ",";
  }
  out->append(R"(},"startTime":{"seconds":)");
  AppendNumber(out, varelnos::ap::WireSeconds(start_time));
  out->append("}}");
}

}  // namespace

std::string WriteAsStream(const varelnos::ap::PointsByName& metrics, base::Time start_time) {
  std::string out = R"({"metricPoints":[)";
  const char* metric_separator = "";
  for (const auto& [name, points] : metrics) {
    out.append(metric_separator).append(R"({"metricName":)");
    AppendString(&out, name);
    out.append(R"(,"points":[)");
    const char* separator = "";
    for (const MetricPoint* point : points) {
      out.append(separator);
      AppendPoint(&out, *point, start_time);
      separator = ",";
    }
    out.append("]}");
    metric_separator = ",";
  }
  return out.append("]}");
}

}  // namespace bench
