#include "process/points.h"

#include "base/json.h"

namespace bench {

std::deque<varelnos::ap::MetricPoint> MakePoints(size_t count) {
  constexpr size_t kMetrics = 10;
  constexpr int64_t kFirstSecond = 1'700'000'000;
  std::deque<varelnos::ap::MetricPoint> points;
  for (size_t i = 0; i < count; ++i) {
    const auto seconds = kFirstSecond + static_cast<int64_t>(i);
    points.push_back({"ap/radio/utilization-" + std::to_string(i % kMetrics),
                      {{"band", "5g"}, {"radio", "radio-" + std::to_string(i % 2)}},
                      static_cast<double>(i) / 3,
                      base::Time::FromInternalValue(seconds * 1'000'000)});
  }
  return points;
}

varelnos::ap::PointsByName Group(const std::deque<varelnos::ap::MetricPoint>& points) {
  varelnos::ap::PointsByName groups;
  for (const varelnos::ap::MetricPoint& point : points) groups[point.name].push_back(&point);
  return groups;
}

std::string WriteAsDaemon(const varelnos::ap::PointsByName& points, base::Time start_time) {
  std::string text;
  base::JSONWriter::Write(varelnos::ap::BuildMetricsRequest(points, start_time), &text);
  return text;
}

}  // namespace bench
