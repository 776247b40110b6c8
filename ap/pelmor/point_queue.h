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
// so that no more than `limit` + 1 ever wait. Precondition: `limit` is the one of the taking.
void AppendPoint(MetricPoint point, size_t limit, PointQueue* pending);

// Moves the pending points behind the unsent ones. Then drops points from the front: first those
// recorded at `cutoff` or before, up to the first younger one, then all but the newest `limit`.
void TakePoints(base::Time cutoff, size_t limit, PointQueue* pending, PointQueue* unsent);

}  // namespace varelnos::ap
