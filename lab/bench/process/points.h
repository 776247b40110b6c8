// The points of the in-process measurements, and the least work that writes them as a request.
#pragma once

#include <deque>
#include <string>

#include "ap/pelmor/metrics_request.h"
#include "ap/pelmor/records.h"
#include "base/time.h"

namespace bench {

// One of ten metrics, with two labels and a double, a second after the one before.
varelnos::ap::MetricPoint MakePoint(size_t number);

// The first so many.
std::deque<varelnos::ap::MetricPoint> MakePoints(size_t count);

varelnos::ap::PointsByName Group(const std::deque<varelnos::ap::MetricPoint>& points);

// What the daemon does: values, and then text.
std::string WriteAsDaemon(const varelnos::ap::PointsByName& points, base::Time start_time);

// The floor: the same bytes, appended one after the other.
std::string WriteAsStream(const varelnos::ap::PointsByName& points, base::Time start_time);

}  // namespace bench
