#include "ap/pelmor/point_queue.h"

#include <utility>

namespace varelnos::ap {

// Invariant: `points_` holds the newest `limit_` points and, in front of them, the one with the
// latest timestamp of all older ones. Kept by `Append`; `MoveTo` empties the queue.
//
// The older ones are never uploaded, because at least `limit_` newer points are moved with them.
// They matter only to the age trim, which stops at the first young point and so keeps old points
// behind it (a clock that was set back makes such). Whether one of the older points stops it
// depends on the latest of their timestamps alone. Points that were unsent before are in front of
// all these and change nothing.
bool PointQueue::Append(MetricPoint point) {
  points_.push_back(std::move(point));
  if (points_.size() <= limit_ + 1) return true;
  MetricPoint& youngest = points_.front();
  MetricPoint& next = points_[1];
  if (youngest.timestamp > next.timestamp) next = std::move(youngest);
  points_.pop_front();
  return false;
}

Trimmed PointQueue::MoveTo(std::deque<MetricPoint>* unsent, base::Time cutoff) {
  if (unsent->empty()) {
    unsent->swap(points_);
  } else {
    for (MetricPoint& point : points_) unsent->push_back(std::move(point));
    points_.clear();
  }
  Trimmed trimmed;
  for (; !unsent->empty() && unsent->front().timestamp <= cutoff; ++trimmed.too_old)
    unsent->pop_front();
  for (; unsent->size() > limit_; ++trimmed.over_limit) unsent->pop_front();
  return trimmed;
}

}  // namespace varelnos::ap
