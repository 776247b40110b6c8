// Counts the records of one queue by their state, from recording to acceptance or drop.
//
// A record stays in the account after it has left its queue while a request that contains it is
// outstanding, since the service may still accept it. A record that several requests contain counts
// once, and as accepted if one of them was accepted.
//
// Invariant: recorded = accepted + dropped + pending + in flight. Owned by the uploader; runs on
// its thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <utility>

#include "base/time.h"
#include "kestle/http/transport.h"

namespace varelnos::ap {

enum class DropReason : uint8_t {
  kNoToken,        // No access token was held when it was recorded.
  kNoNetworkTime,  // The clock was not set from the network when it was recorded.
  kTooOld,         // A point was older than `kMaxPointAge` at an upload cycle.
  kOverLimit,      // `kMaxUploadPoints` points were newer.
  kRejected,       // The service rejected the request that contained the point.
  kPushedOut,      // A newer log replaced it, or a response to another request removed it.
};
inline constexpr size_t kDropReasonCount = 6;

struct RecordCounts {
  uint64_t recorded = 0;
  uint64_t accepted = 0;
  uint64_t pending = 0;                              // In the queue and in no request.
  uint64_t in_flight = 0;                            // In an outstanding request.
  std::array<uint64_t, kDropReasonCount> dropped{};  // By `DropReason`.
  base::Time dropped_at;  // The last drop of a record that was in the queue; null: none yet.

  uint64_t& Dropped(DropReason reason) { return dropped[static_cast<size_t>(reason)]; }
  [[nodiscard]] uint64_t DroppedInAll() const;
  [[nodiscard]] bool AddsUp() const;
};

class RecordAccount {
 public:
  using RequestID = kestle::http::RequestID;
  enum class Outcome {
    kAccepted,  // By the service.
    kRejected,  // By the service, all of them.
    kUnknown,   // No response, or one that decides nothing: they may be sent again.
  };

  // A record was recorded and appended to the queue.
  void Keep();
  // A record was recorded and not queued.
  void Drop(DropReason reason);
  // The oldest `count` records have left the queue. The reason counts unless an earlier one or an
  // acceptance is known.
  void DropOldest(size_t count, DropReason reason);
  // A record that was in no request has left the queue; it does not matter which.
  void DropUnsent(DropReason reason);

  // A request with the oldest `count` records of the queue was sent, or has ended.
  void Send(RequestID request, size_t count);
  void Finish(RequestID request, Outcome outcome);

  [[nodiscard]] RecordCounts Counts() const;

  // Aborts a debug build if the counts do not add up or the queue does not have this size.
  void Check(size_t queue_size) const;

 private:
  struct Entry {
    uint32_t requests = 0;  // Outstanding ones that contain it.
    bool counted = false;   // As accepted or dropped.
    std::optional<DropReason> reason;
  };
  using Range = std::pair<uint64_t, uint64_t>;  // The first number, and the one after the last.

  [[nodiscard]] uint64_t FirstQueued() const { return end_ - queued_; }
  Entry& At(uint64_t number) { return entries_[number - (end_ - entries_.size())]; }
  void Leave(Entry* entry, DropReason reason);
  void CountDropped(Entry* entry);
  void ForgetCounted();

  // Without `pending` and `in_flight`, which `Counts` computes.
  RecordCounts counts_;
  // All records that are not counted yet, and some between them that are. The last `queued_` are in
  // the queue. Records are numbered in the order of recording; the next number is `end_`.
  std::deque<Entry> entries_;
  size_t queued_ = 0;
  uint64_t end_ = 0;
  std::map<RequestID, Range> requests_;
};

}  // namespace varelnos::ap
