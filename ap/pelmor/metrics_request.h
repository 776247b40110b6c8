// The body of a request that carries metric points.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "ap/pelmor/records.h"
#include "base/time.h"
#include "base/values.h"

namespace varelnos::ap {

// Metric names in byte order, each with its points in the order of recording. Nothing is owned.
using PointsByName = std::map<std::string, std::vector<const MetricPoint*>>;

// Builds the body: for each name its points, each with its labels, the common start of the
// reporting interval, the moment of its recording and its typed value.
base::DictionaryValue BuildMetricsRequest(const PointsByName& points_by_name,
                                          const base::Time& start_time);

}  // namespace varelnos::ap
