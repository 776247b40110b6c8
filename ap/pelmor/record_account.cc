#include "ap/pelmor/record_account.h"

#include <numeric>

#include "base/logging.h"

namespace varelnos::ap {

uint64_t RecordCounts::DroppedInAll() const {
  return std::accumulate(dropped.begin(), dropped.end(), uint64_t{0});
}

bool RecordCounts::AddsUp() const {
  return recorded == accepted + DroppedInAll() + pending + in_flight;
}

void RecordAccount::Keep() {
  ++counts_.recorded;
  entries_.emplace_back();
  ++queued_;
  ++end_;
}

void RecordAccount::Drop(DropReason reason) {
  ++counts_.recorded;
  ++counts_.Dropped(reason);
}

void RecordAccount::DropOldest(size_t count, DropReason reason) {
  for (; count > 0; --count, --queued_) Leave(&At(FirstQueued()), reason);
  ForgetCounted();
}

void RecordAccount::DropUnsent(DropReason reason) {
  // Records that were in no request are indistinguishable, and the newest is one of them.
  Leave(&entries_.back(), reason);
  entries_.pop_back();
  --queued_;
  --end_;
}

void RecordAccount::Send(RequestID request, size_t count) {
  const Range range = {FirstQueued(), FirstQueued() + count};
  requests_[request] = range;
  for (uint64_t number = range.first; number < range.second; ++number) ++At(number).requests;
}

void RecordAccount::Finish(RequestID request, Outcome outcome) {
  const auto [first, end] = requests_.extract(request).mapped();
  for (uint64_t number = first; number < end; ++number) {
    Entry& entry = At(number);
    --entry.requests;
    if (outcome == Outcome::kAccepted && !entry.counted) {
      entry.counted = true;
      ++counts_.accepted;
    }
    if (outcome == Outcome::kRejected && !entry.reason) entry.reason = DropReason::kRejected;
    if (number < FirstQueued()) CountDropped(&entry);
  }
  ForgetCounted();
}

RecordCounts RecordAccount::Counts() const {
  RecordCounts counts = counts_;
  for (const Entry& entry : entries_) {
    if (entry.counted) continue;
    ++(entry.requests > 0 ? counts.in_flight : counts.pending);
  }
  return counts;
}

void RecordAccount::Check([[maybe_unused]] size_t queue_size) const {
#ifndef NDEBUG
  CHECK(queued_ == queue_size && Counts().AddsUp()) << "The account of the records is wrong";
#endif
}

void RecordAccount::Leave(Entry* entry, DropReason reason) {
  if (!entry->reason) entry->reason = reason;
  CountDropped(entry);
}

// Does nothing while a request contains the record, or if it is counted already.
void RecordAccount::CountDropped(Entry* entry) {
  if (entry->counted || entry->requests > 0) return;
  entry->counted = true;
  ++counts_.Dropped(*entry->reason);
  counts_.dropped_at = base::Time::Now();
}

void RecordAccount::ForgetCounted() {
  while (entries_.size() > queued_ && entries_.front().counted && entries_.front().requests == 0)
    entries_.pop_front();
}

}  // namespace varelnos::ap
