#include "ap/pelmor/point_queue.h"

#include <utility>

namespace varelnos::ap {

// A point with `limit` others behind it is never sent: they are taken with it, and of all that is
// taken the newest `limit` are left at most. It counts for one thing only. The age trim stops at
// the first young point, and spares the old ones behind it, which a clock set back has put there.
// Whether there is such a point before the newest `limit` is decided by the youngest of those
// before them. So this one is kept, at the front, for all of them; once taken, it is dropped by the
// one trim or the other. Unsent points change nothing of this: they stand before all of these.
bool AppendPoint(MetricPoint point, size_t limit, PointQueue* pending) {
  pending->push_back(std::move(point));
  if (pending->size() <= limit + 1) return true;
  MetricPoint& youngest = pending->front();
  MetricPoint& next = (*pending)[1];
  if (youngest.timestamp > next.timestamp) next = std::move(youngest);
  pending->pop_front();
  return false;
}

Trimmed TakePoints(base::Time cutoff, size_t limit, PointQueue* pending, PointQueue* unsent) {
  for (MetricPoint& point : *pending) unsent->push_back(std::move(point));
  pending->clear();
  // Stops at the first young point: after a step of the clock, older ones behind it are kept.
  Trimmed trimmed;
  for (; !unsent->empty() && unsent->front().timestamp <= cutoff; ++trimmed.too_old)
    unsent->pop_front();
  for (; unsent->size() > limit; ++trimmed.over_limit) unsent->pop_front();
  return trimmed;
}

}  // namespace varelnos::ap
