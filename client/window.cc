#include "client/window.h"

#include <algorithm>
#include <utility>

namespace pelmor {

namespace {

// Below the 128 pending replies that the system bus allows a connection.
constexpr size_t kMaxPendingReplies = kWindowRecords;
constexpr size_t kMaxUnconfirmed = 2 * kWindowRecords;
constexpr size_t kMaxUnconfirmedBytes = 2 * kWindowBytes;

Status Restarted() {
  return Status(StatusCode::kNoDaemon, "org.freedesktop.DBus.Error.NoReply",
                "The daemon was restarted");
}

}  // namespace

bool Window::HasRoom() const {
  return unconfirmed_ < kMaxUnconfirmed && unconfirmed_bytes_ < kMaxUnconfirmedBytes &&
         parts_.size() < kMaxPendingReplies;
}

bool Window::EndsWith(size_t bytes) const {
  return probe_ || open_.messages + 1 >= kWindowRecords || open_.bytes + bytes >= kWindowBytes;
}

void Window::SentOneWay(uint64_t serial, size_t bytes) {
  Add(bytes, Kind::kOneWay);
  open_.last_serial = serial;
}

void Window::SentWithReply(uint64_t serial, size_t bytes, Kind kind) {
  Add(bytes, kind);
  open_.last_serial = serial;
  open_.ends_one_way = kind == Kind::kOneWay;
  parts_.push_back(std::exchange(open_, {}));
  probe_ = false;
}

void Window::Add(size_t bytes, Kind kind) {
  ++open_.messages;
  open_.bytes += bytes;
  if (kind == Kind::kOneWay) ++open_.one_way;
  ++unconfirmed_;
  unconfirmed_bytes_ += bytes;
}

void Window::OnReply(uint64_t serial, const std::string& daemon, const Status& status) {
  const auto found = std::find_if(parts_.begin(), parts_.end(), [serial](const Part& part) {
    return part.last_serial == serial;
  });
  if (found == parts_.end()) return;
  const Part part = *found;
  parts_.erase(found);
  unconfirmed_ -= part.messages;
  unconfirmed_bytes_ -= part.bytes;
  const size_t last = part.ends_one_way ? 1 : 0;
  const size_t others = part.one_way - last - part.rejected;
  if (daemon.empty()) {
    probe_ = true;
    return Lose(others + last, status);
  }
  if (!status.ok()) Lose(last, status);
  if (std::exchange(daemon_, daemon) != daemon) Lose(others, Restarted());
}

void Window::OnRejected(uint64_t serial, const Status& status) {
  const auto found = std::find_if(parts_.begin(), parts_.end(),
                                  [serial](const Part& part) { return serial < part.last_serial; });
  Part& part = found == parts_.end() ? open_ : *found;
  if (part.rejected + (part.ends_one_way ? 1 : 0) >= part.one_way) return;
  ++part.rejected;
  Lose(1, status);
}

void Window::OnDisconnected(size_t queued, const Status& status) {
  size_t lost = queued + open_.one_way - open_.rejected;
  for (const Part& part : parts_) lost += part.one_way - part.rejected;
  Lose(lost, status);
  parts_.clear();
  open_ = {};
  unconfirmed_ = 0;
  unconfirmed_bytes_ = 0;
  daemon_.clear();
  probe_ = true;
}

void Window::Lose(size_t records, const Status& status) {
  if (records == 0) return;
  lost_ += records;
  last_loss_ = status;
}

}  // namespace pelmor
