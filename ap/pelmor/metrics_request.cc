#include "ap/pelmor/metrics_request.h"

#include <string>
#include <utility>

#include "ap/pelmor/typed_value.h"
#include "ap/pelmor/wire_time.h"

namespace varelnos::ap {

namespace {

base::DictionaryValue BuildPoint(const MetricPoint& point, const base::Time& start_time) {
  base::DictionaryValue labels;
  // A dot in a label's key does not make a nested object.
  for (const auto& [key, value] : point.labels) labels.SetStringWithoutPathExpansion(key, value);
  base::DictionaryValue body;
  // A text has the greatest key: set first, the others would have to be inserted in front of it.
  const bool is_text = point.value.TryGet<std::string>() != nullptr;
  if (!is_text) EncodeTypedValue(point.value, &body);
  body.SetInteger("endTime.seconds", WireSeconds(point.timestamp));
  body.Set("labels", std::move(labels));
  body.SetInteger("startTime.seconds", WireSeconds(start_time));
  if (is_text) EncodeTypedValue(point.value, &body);
  return body;
}

}  // namespace

base::DictionaryValue BuildMetricsRequest(const PointsByName& points_by_name,
                                          const base::Time& start_time) {
  base::ListValue metrics;
  for (const auto& [name, points] : points_by_name) {
    base::ListValue point_list;
    for (const MetricPoint* point : points) point_list.Append(BuildPoint(*point, start_time));
    base::DictionaryValue metric;
    metric.SetString("metricName", name);
    metric.Set("points", std::move(point_list));
    metrics.Append(std::move(metric));
  }
  base::DictionaryValue body;
  body.Set("metricPoints", std::move(metrics));
  return body;
}

}  // namespace varelnos::ap
