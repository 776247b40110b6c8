// Compares the bounded queue with a model that keeps all points, in random sequences of points,
// clock steps and responses: both must upload the same.
#include <gtest/gtest.h>

#include <cstdint>
#include <deque>
#include <random>
#include <vector>

#include "ap/pelmor/point_queue.h"

namespace varelnos::ap {
namespace {

struct Uploaded {
  int number;
  base::Time timestamp;
  bool operator==(const Uploaded&) const = default;
};

// The rules of an upload cycle, without a limit on pending points.
class UnlimitedModel {
 public:
  void Record(const Uploaded& point) { pending_.push_back(point); }
  void Take(base::Time cutoff, size_t limit) {
    unsent_.insert(unsent_.end(), pending_.begin(), pending_.end());
    pending_.clear();
    size_t dropped = 0;
    while (dropped < unsent_.size() && unsent_[dropped].timestamp <= cutoff) ++dropped;
    if (unsent_.size() - dropped > limit) dropped = unsent_.size() - limit;
    unsent_.erase(unsent_.begin(), unsent_.begin() + static_cast<ptrdiff_t>(dropped));
  }
  void Accept() { unsent_.clear(); }
  [[nodiscard]] const std::vector<Uploaded>& unsent() const { return unsent_; }

 private:
  std::vector<Uploaded> pending_;
  std::vector<Uploaded> unsent_;
};

// A random sequence for both. The limit and the range of times are small, so that most sequences
// exceed the limit and have equal times.
class Sequence {
 public:
  explicit Sequence(uint32_t seed)
      : random_(seed), limit_(1 + Below(6)), last_time_(1 + Below(8)) {}

  void Run() {
    const size_t cycles = 1 + Below(5);
    for (size_t cycle = 0; cycle < cycles && !testing::Test::HasFailure(); ++cycle) {
      const size_t batch = Below(3 * limit_ + 2);
      for (size_t i = 0; i < batch; ++i) Record();
      Take();
      // A response may arrive after more points were recorded, or not before the next cycle.
      for (size_t i = Below(limit_ + 2); i > 0; --i) Record();
      if (Below(2) == 0) Accept();
    }
  }

 private:
  size_t Below(size_t end) { return random_() % end; }
  base::Time AnyTime() {
    return base::Time::FromInternalValue(static_cast<int64_t>(Below(last_time_ + 1)));
  }

  // At a random time: the clock may be set back and forth.
  void Record() {
    const Uploaded point{++recorded_, AnyTime()};
    model_.Record(point);
    const size_t before = pending_.size();
    const bool kept_all = pending_.Append({"", {}, point.number, point.timestamp});
    EXPECT_EQ(kept_all, pending_.size() == before + 1);
    EXPECT_LE(pending_.size(), limit_ + 1);
  }
  void Take() {
    const base::Time cutoff = AnyTime();
    model_.Take(cutoff, limit_);
    pending_.MoveTo(&unsent_, cutoff);
    std::vector<Uploaded> taken;
    taken.reserve(unsent_.size());
    for (const MetricPoint& point : unsent_)
      taken.push_back({static_cast<int>(point.value.GetAsInteger()), point.timestamp});
    EXPECT_TRUE(taken == model_.unsent());
    EXPECT_EQ(pending_.size(), 0U);
  }
  void Accept() {
    model_.Accept();
    unsent_.clear();
  }

  std::minstd_rand random_;
  const size_t limit_;
  const size_t last_time_;
  int recorded_ = 0;
  UnlimitedModel model_;
  PointQueue pending_{limit_};
  std::deque<MetricPoint> unsent_;
};

TEST(PendingPoints, UploadsLikeAnUnboundedQueue) {
  constexpr uint32_t kSequences = 100'000;
  for (uint32_t seed = 1; seed <= kSequences; ++seed) {
    Sequence(seed).Run();
    ASSERT_FALSE(HasFailure()) << "seed " << seed;
  }
}

}  // namespace
}  // namespace varelnos::ap
