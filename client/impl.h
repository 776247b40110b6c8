// The implementation of a client: an event loop inside the caller's, the bus connection while there
// is one, the queue, and the calls whose result is expected.
//
// One thread at a time. Callbacks run from `Process`, outside the event loop, so that they may call
// and destroy the client.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>

#include "base/hosted_loop.h"
#include "base/timer.h"
#include "bindings/pelmor_manager_proxies.h"
#include "client/window.h"
#include "dbus/message.h"
#include "pelmor/client.h"

namespace pelmor {

using org::quintara::ap::Pelmor::ManagerProxy;

// A record before it has a message, which needs a connection.
struct Record {
  using Maker = std::function<dbus::MethodCall(const ManagerProxy&)>;

  // Whether the arguments are valid.
  Status checked;
  size_t bytes = 0;
  Maker make;
};

class Client::Impl {
 public:
  explicit Impl(Timeout queue_wait);
  ~Impl();
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  Status Connect();
  // Waits for the result.
  Status Block(const Record& record, Timeout timeout);
  // One-way if `done` is null.
  Status Start(const Record& record, Timeout timeout, Callback done);
  Status Flush(Timeout timeout);
  [[nodiscard]] uint64_t LostRecords() const { return window_.lost(); }

  [[nodiscard]] int PollFd() const { return loop_.PollFd(); }
  void Process();
  // Stops a running `Process` before its next callback.
  void Close() { closed_ = true; }

 private:
  using Clock = std::chrono::steady_clock;

  class Entry;
  struct Session;
  // A message, with the number of the call that expects its result; 0 if it is one-way.
  struct Queued {
    dbus::MethodCall message;
    size_t bytes;
    uint64_t call;
  };
  // A call whose result is expected: by a callback, or by a function that waits.
  struct Pending {
    Callback done;
    std::optional<Status>* result;
    Clock::time_point deadline;
  };
  struct Finished {
    Callback done;
    Status status;
  };

  Status EnsureConnected();
  // Connects, and waits until the queue has room or, at the deadline, returns `full`.
  Status Prepare(Clock::time_point deadline, StatusCode full);
  // Sends a one-way record if that takes no more than a write. False: nothing was sent.
  [[nodiscard]] bool SendAtOnce(const Record& record);
  // Precondition of both: connected.
  void Enqueue(Queued message);
  Status Await(Queued message, Clock::time_point deadline);
  uint64_t AddPending(Callback done, std::optional<Status>* result, Clock::time_point deadline);

  // Reads what has arrived, and sends what it made room for. If the connection is lost, all pending
  // calls fail.
  void Pump();
  void SendQueued();
  [[nodiscard]] bool Send(const Queued& message);
  void OnReply(uint64_t call, const dbus::Response& response);
  void Disconnect();
  void ExpirePending();
  void SetTimer();
  void Finish(uint64_t call, const Status& status);
  Status StatusOf(const dbus::Response& response) const;

  const Timeout queue_wait_;
  base::HostedLoop loop_;
  // Wakes the loop at `timer_due_`. After the loop, to which it is attached.
  base::RepeatingTimer timer_;
  std::optional<Clock::time_point> timer_due_;
  // Null while not connected.
  std::unique_ptr<Session> session_;
  Window window_;
  // After the session, since its messages use the connection. Empty while not connected.
  // Invariant: while the connection lasts, messages are queued only if the window has no room. Kept
  // by `SendQueued`.
  std::deque<Queued> queue_;
  size_t queued_bytes_ = 0;
  std::map<uint64_t, Pending> pending_;
  uint64_t last_call_ = 0;
  std::deque<Finished> finished_;
  uint64_t reported_losses_ = 0;
  bool closed_ = false;
};

}  // namespace pelmor
