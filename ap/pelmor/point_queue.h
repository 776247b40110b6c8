// The queues of metric points on their way to an upload: how a point enters, and what is taken.
//
// A queue owns its points, the oldest in front. The message loop's thread alone touches it.
#pragma once

#include <cstddef>
#include <deque>

#include "ap/pelmor/records.h"
#include "base/time.h"

namespace varelnos::ap {

using PointQueue = std::deque<MetricPoint>;

// Appends `point`. Leaves out what makes no difference to an upload of the newest `limit` points,
// so that no more than `limit` + 1 ever wait. Returns false when a point was left out.
// Precondition: `limit` is the one of the taking.
bool AppendPoint(MetricPoint point, size_t limit, PointQueue* pending);

// How many points a trim has dropped, by its rule.
struct Trimmed {
  size_t too_old = 0;
  size_t over_limit = 0;
};

// Moves the pending points behind the unsent ones. Then drops points from the front: first those
// recorded at `cutoff` or before, up to the first younger one, then all but the newest `limit`.
Trimmed TakePoints(base::Time cutoff, size_t limit, PointQueue* pending, PointQueue* unsent);

}  // namespace varelnos::ap
