#include "process/points.h"

#include "base/json.h"

namespace bench {

varelnos::ap::MetricPoint MakePoint(size_t number) {
  constexpr size_t kMetrics = 10;
  constexpr int64_t kFirstSecond = 1'700'000'000;
  const auto seconds = kFirstSecond + static_cast<int64_t>(number);
  return {"ap/radio/utilization-" + std::to_string(number % kMetrics),
          {{"band", "5g"}, {"radio", "radio-" + std::to_string(number % 2)}},
          static_cast<double>(number) / 3,
          base::Time::FromInternalValue(seconds * 1'000'000)};
}

std::deque<varelnos::ap::MetricPoint> MakePoints(size_t count) {
  std::deque<varelnos::ap::MetricPoint> points;
  for (size_t number = 0; number < count; ++number) points.push_back(MakePoint(number));
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
