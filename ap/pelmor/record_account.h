// Accounts for the records of one queue: what became of each, from its recording to its end.
//
// A record stays in the account after it has left its queue, for as long as a request still carries
// it: the response may yet show that the service accepted it. So a record that several requests
// carry counts once, and as accepted if any of them was accepted.
//
// Invariant: recorded = accepted + dropped + pending + in flight. Belongs to the uploader and runs
// on its thread.
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
  kNoToken,        // There was no access token when it was recorded.
  kNoNetworkTime,  // The clock was not set from the network when it was recorded.
  kTooOld,         // Of points: older than `kMaxPointAge` at a cycle.
  kOverLimit,      // Of points: more than `kMaxUploadPoints` were newer.
  kRejected,       // Of points: the service rejected the request.
  kPushedOut,      // A newer log took its place; or a response to another request removed it.
};
inline constexpr size_t kDropReasonCount = 6;

struct RecordCounts {
  uint64_t recorded = 0;
  uint64_t accepted = 0;
  uint64_t pending = 0;                              // In the queue, and in no request.
  uint64_t in_flight = 0;                            // In a request whose response is awaited.
  std::array<uint64_t, kDropReasonCount> dropped{};  // By `DropReason`.
  base::Time dropped_at;  // When a record that had been in the queue was last dropped; null: never.

  uint64_t& Dropped(DropReason reason) { return dropped[static_cast<size_t>(reason)]; }
  uint64_t DroppedInAll() const;
  bool AddsUp() const;
};

class RecordAccount {
 public:
  using RequestID = kestle::http::RequestID;
  enum class Outcome {
    kAccepted,  // The service has the records.
    kRejected,  // It wants none of them.
    kUnknown,   // It has said neither: they may be sent again.
  };

  // A record was recorded and joined the queue, as the newest.
  void Keep();
  // A record was recorded and did not join the queue.
  void Refuse(DropReason reason);
  // The oldest `count` records have left the queue, for this reason unless an earlier one or the
  // service's acceptance is known.
  void DropOldest(size_t count, DropReason reason);
  // One record that no request has carried has left the queue, whichever.
  void DropUnsent(DropReason reason);

  // A request with the oldest `count` records of the queue was sent, and has come to an end.
  void Send(RequestID request, size_t count);
  void Finish(RequestID request, Outcome outcome);

  RecordCounts Counts() const;

  // Debug builds stop when the counts do not add up, or the queue does not have this size.
  void Check(size_t queue_size) const;

 private:
  struct Entry {
    uint32_t requests = 0;  // That carry it and have not come to an end.
    bool counted = false;   // As accepted or dropped.
    std::optional<DropReason> reason;
  };
  using Range = std::pair<uint64_t, uint64_t>;  // Of numbers: the first, and the one past the last.

  uint64_t FirstQueued() const { return end_ - queued_; }
  Entry& At(uint64_t number) { return entries_[number - (end_ - entries_.size())]; }
  void Leave(Entry* entry, DropReason reason);
  void CountDropped(Entry* entry);
  void ForgetCounted();

  // What is counted here: all but `pending` and `in_flight`.
  RecordCounts counts_;
  // Those whose end is not known yet, and some among them whose end is. The last `queued_` are in
  // the queue. Records are numbered as they join it, the next with `end_`.
  std::deque<Entry> entries_;
  size_t queued_ = 0;
  uint64_t end_ = 0;
  std::map<RequestID, Range> requests_;
};

}  // namespace varelnos::ap
