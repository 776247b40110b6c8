// The body of a metrics request.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "ap/pelmor/records.h"
#include "base/time.h"
#include "base/values.h"

namespace varelnos::ap {

// Metric names in byte order, each with its points, not owned, in the order of recording.
using PointsByName = std::map<std::string, std::vector<const MetricPoint*>>;

// The body has the points of each name, and each point its labels, the start of the reporting
// interval, the time of its recording and its typed value.
base::DictionaryValue BuildMetricsRequest(const PointsByName& points_by_name,
                                          const base::Time& start_time);

}  // namespace varelnos::ap
