// Compares the account with a model that identifies each record, in random sequences of overlapping
// requests, drops and responses: both must count the same after every event.
#include "ap/pelmor/record_account.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <vector>

namespace varelnos::ap {
namespace {

using Outcome = RecordAccount::Outcome;
using Records = std::set<int>;

// The rules, with sets of records.
class Model {
 public:
  void Keep() { queue_.push_back(++recorded_); }
  void Drop(DropReason reason) { reasons_[++recorded_] = reason; }
  void DropOldest(size_t count, DropReason reason) {
    for (; count > 0; --count) {
      reasons_.emplace(queue_.front(), reason);
      queue_.erase(queue_.begin());
    }
  }
  void DropUnsent(DropReason reason) {
    reasons_.emplace(queue_.back(), reason);
    queue_.pop_back();
  }
  void Send(int request, size_t count) {
    requests_[request] = Records(queue_.begin(), queue_.begin() + static_cast<ptrdiff_t>(count));
  }
  void Finish(int request, Outcome outcome) {
    for (const int record : requests_.at(request)) {
      if (outcome == Outcome::kAccepted) accepted_.insert(record);
      if (outcome == Outcome::kRejected) reasons_.emplace(record, DropReason::kRejected);
    }
    requests_.erase(request);
  }

  [[nodiscard]] RecordCounts Counts() const {
    RecordCounts counts;
    counts.recorded = static_cast<uint64_t>(recorded_);
    counts.accepted = accepted_.size();
    for (int record = 1; record <= recorded_; ++record) {
      if (accepted_.contains(record)) continue;
      if (IsInFlight(record))
        ++counts.in_flight;
      else if (std::find(queue_.begin(), queue_.end(), record) != queue_.end())
        ++counts.pending;
      else
        ++counts.Dropped(reasons_.at(record));
    }
    return counts;
  }
  [[nodiscard]] size_t unsent() const {
    size_t count = 0;
    while (count < queue_.size() && !WasSent(queue_[queue_.size() - 1 - count])) ++count;
    return count;
  }
  [[nodiscard]] const std::vector<int>& queue() const { return queue_; }
  [[nodiscard]] const std::map<int, Records>& requests() const { return requests_; }

 private:
  [[nodiscard]] bool IsInFlight(int record) const {
    return std::any_of(requests_.begin(), requests_.end(),
                       [record](const auto& one) { return one.second.contains(record); });
  }
  [[nodiscard]] bool WasSent(int record) const {
    return IsInFlight(record) || reasons_.contains(record);
  }

  int recorded_ = 0;
  std::vector<int> queue_;
  std::map<int, DropReason> reasons_;  // The first one of each record.
  std::set<int> accepted_;
  std::map<int, Records> requests_;
};

class Life {
 public:
  explicit Life(uint32_t seed) : random_(seed) {}

  void Run() {
    for (int event = 0; event < 40 && !testing::Test::HasFailure(); ++event) {
      Happen();
      const RecordCounts counts = account_.Counts();
      const RecordCounts expected = model_.Counts();
      EXPECT_EQ(counts.recorded, expected.recorded);
      EXPECT_EQ(counts.accepted, expected.accepted);
      EXPECT_EQ(counts.pending, expected.pending);
      EXPECT_EQ(counts.in_flight, expected.in_flight);
      EXPECT_EQ(counts.dropped, expected.dropped);
      EXPECT_TRUE(counts.AddsUp());
      account_.Check(model_.queue().size());
    }
  }

 private:
  size_t Below(size_t end) { return random_() % end; }

  void Happen() {
    switch (Below(6)) {
      case 0:
        return Both([](auto* one) { one->Drop(DropReason::kNoToken); });
      case 1:
        if (model_.unsent() == 0) return;
        return Both([](auto* one) { one->DropUnsent(DropReason::kOverLimit); });
      case 2:
        return DropOldest(Below(model_.queue().size() + 1), DropReason::kTooOld);
      case 3:
        return Send();
      case 4:
        return Finish();
      default:
        return Both([](auto* one) { one->Keep(); });
    }
  }

  template <typename Event>
  void Both(const Event& event) {
    event(&account_);
    event(&model_);
  }
  void DropOldest(size_t count, DropReason reason) {
    Both([=](auto* one) { one->DropOldest(count, reason); });
  }
  void Send() {
    const size_t count = Below(model_.queue().size() + 1);
    const int request = ++requests_;
    Both([=](auto* one) { one->Send(request, count); });
  }
  // Like the uploader: a response removes all records of the queue, a transport error none.
  void Finish() {
    if (model_.requests().empty()) return;
    const auto& requests = model_.requests();
    const int request =
        std::next(requests.begin(), static_cast<ptrdiff_t>(Below(requests.size())))->first;
    constexpr Outcome kOutcomes[] = {Outcome::kAccepted, Outcome::kRejected, Outcome::kUnknown};
    const Outcome outcome = kOutcomes[Below(3)];
    Both([=](auto* one) { one->Finish(request, outcome); });
    if (outcome != Outcome::kUnknown) DropOldest(model_.queue().size(), DropReason::kPushedOut);
  }

  std::minstd_rand random_;
  RecordAccount account_;
  Model model_;
  int requests_ = 0;
};

TEST(RecordAccount, CountsLikeAModelThatIdentifiesEachRecord) {
  constexpr uint32_t kLives = 20'000;
  for (uint32_t seed = 1; seed <= kLives; ++seed) {
    Life(seed).Run();
    ASSERT_FALSE(HasFailure()) << "seed " << seed;
  }
}

TEST(RecordAccount, OnlyTheDropOfAQueuedRecordSetsTheTime) {
  RecordAccount account;
  account.Drop(DropReason::kNoToken);
  EXPECT_TRUE(account.Counts().dropped_at.is_null());
  account.Keep();
  account.DropOldest(1, DropReason::kTooOld);
  EXPECT_FALSE(account.Counts().dropped_at.is_null());
}

#ifndef NDEBUG
TEST(RecordAccount, AQueueOfAnotherSizeIsFatalInADebugBuild) {
  RecordAccount account;
  account.Keep();
  account.Check(1);
  EXPECT_DEATH(account.Check(0), "The account of the records is wrong");
}
#endif

}  // namespace
}  // namespace varelnos::ap
