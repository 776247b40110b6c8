// The points of the in-process measurements, and two ways of writing them as a request.
#pragma once

#include <deque>
#include <string>

#include "ap/pelmor/metrics_request.h"
#include "ap/pelmor/records.h"
#include "base/time.h"

namespace bench {

inline constexpr base::Time kStartTime = base::Time::FromInternalValue(1'690'000'000'000'000);

// A point of one of ten metrics, with two labels and a double, one second after point `number - 1`.
varelnos::ap::MetricPoint MakePoint(size_t number);

// Points 0 to `count - 1`.
std::deque<varelnos::ap::MetricPoint> MakePoints(size_t count);

varelnos::ap::PointsByName Group(const std::deque<varelnos::ap::MetricPoint>& points);

// As the daemon does: creates JSON values, and then their text.
std::string WriteAsDaemon(const varelnos::ap::PointsByName& points, base::Time start_time);

// The baseline: appends the same bytes directly.
std::string WriteAsStream(const varelnos::ap::PointsByName& points, base::Time start_time);

}  // namespace bench
