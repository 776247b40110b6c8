// The metric points that were recorded since the last upload cycle, bounded.
//
// The queue drops a point only if no upload can contain it: a batch is the newest `limit` points
// of those that are not too old. Runs on the message loop's thread.
#pragma once

#include <cstddef>
#include <deque>

#include "ap/pelmor/records.h"
#include "base/time.h"

namespace varelnos::ap {

// The number of points that each rule of `PointQueue::MoveTo` dropped.
struct Trimmed {
  size_t too_old = 0;
  size_t over_limit = 0;
};

class PointQueue {
 public:
  // Precondition: `limit` > 0.
  explicit PointQueue(size_t limit) : limit_(limit) {}

  // Returns false if an older point was dropped for it.
  [[nodiscard]] bool Append(MetricPoint point);

  // Moves all points to the back of `unsent`. Then drops points from the front of `unsent`: first
  // those recorded at `cutoff` or before, up to the first younger one, then all but the newest
  // `limit`.
  Trimmed MoveTo(std::deque<MetricPoint>* unsent, base::Time cutoff);

  // At most `limit` + 1.
  [[nodiscard]] size_t size() const { return points_.size(); }

 private:
  const size_t limit_;
  std::deque<MetricPoint> points_;  // The oldest in front.
};

}  // namespace varelnos::ap
