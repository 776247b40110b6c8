// The records that were sent and are not yet confirmed. Decides when the next one may be sent and
// whether it requests a reply, and counts the lost ones.
//
// Records without a callback are sent without a reply, except for the last of each window. The bus
// and the daemon keep the order of the messages of a connection, so this reply confirms the whole
// window, if the same daemon sent the previous reply.
//
// Plain state of one client: no locks, no bus.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

#include "pelmor/client.h"

namespace pelmor {

class Window {
 public:
  enum class Kind { kOneWay, kWithCallback };

  [[nodiscard]] bool HasRoom() const;
  // Whether a record without a callback must request a reply when it is sent next.
  [[nodiscard]] bool EndsWith(size_t bytes) const;
  // Precondition of both: there is room. `serial` is the message's.
  void SentOneWay(uint64_t serial, size_t bytes);
  void SentWithReply(uint64_t serial, size_t bytes, Kind kind);

  // The reply to the message `serial`. `daemon` is the unique name of its sender, empty if the bus
  // replied instead.
  void OnReply(uint64_t serial, const std::string& daemon, const Status& status);
  // The bus did not deliver the message `serial`, which requests no reply.
  void OnRejected(uint64_t serial, const Status& status);
  // The connection was lost, with `queued` records without a callback that were not sent.
  void OnDisconnected(size_t queued, const Status& status);

  [[nodiscard]] bool IsEmpty() const { return unconfirmed_ == 0; }
  // Records without a callback that were not confirmed, and the last reason.
  [[nodiscard]] uint64_t lost() const { return lost_; }
  [[nodiscard]] const Status& last_loss() const { return last_loss_; }

 private:
  // Messages that one reply confirms.
  struct Part {
    uint64_t last_serial = 0;
    size_t messages = 0;
    size_t bytes = 0;
    // Those without a callback.
    size_t one_way = 0;
    // Of these, those that the bus has rejected already.
    size_t rejected = 0;
    // Whether the last message has no callback.
    bool ends_one_way = false;
  };

  void Add(size_t bytes, Kind kind);
  void Lose(size_t records, const Status& status);

  // In the order of sending; each ends with a message that requests a reply.
  std::deque<Part> parts_;
  // After these, without a request yet.
  Part open_;
  size_t unconfirmed_ = 0;
  size_t unconfirmed_bytes_ = 0;
  // The sender of the last reply.
  std::string daemon_;
  // The next record requests a reply, since it is unknown which daemon receives it.
  bool probe_ = true;
  uint64_t lost_ = 0;
  Status last_loss_;
};

}  // namespace pelmor
