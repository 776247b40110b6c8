// The implementation of a client: an event loop inside the caller's, the bus connection while there
// is one, and the pending calls.
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

#include "base/callback.h"
#include "base/hosted_loop.h"
#include "bindings/pelmor_manager_proxies.h"
#include "kestle/error.h"
#include "pelmor/client.h"

namespace pelmor {

using org::quintara::ap::Pelmor::ManagerProxy;

class Client::Impl {
 public:
  using BlockingCall = std::function<bool(ManagerProxy*, kestle::ErrorPtr* error, int timeout_ms)>;
  using AsyncCall =
      std::function<void(ManagerProxy*, const base::Callback<void()>& on_success,
                         const kestle::dbus_utils::ErrorCallback& on_error, int timeout_ms)>;

  Impl();
  ~Impl();
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  Status Connect();
  // Both only return or report `checked` if it is an error.
  Status Block(const Status& checked, Timeout timeout, const BlockingCall& call);
  void Start(const Status& checked, Timeout timeout, const AsyncCall& call, Callback done);

  [[nodiscard]] int PollFd() const { return loop_.PollFd(); }
  void Process();
  // Stops a running `Process` before its next callback.
  void Close() { closed_ = true; }

 private:
  using Clock = std::chrono::steady_clock;

  class Entry;
  struct Session;
  struct Pending {
    Callback done;
    Clock::time_point deadline;
  };
  struct Finished {
    Callback done;
    Status status;
  };

  Status EnsureConnected();
  // Reads what has arrived. If the connection is lost, all pending calls fail.
  void Pump();
  Status StatusOf(const kestle::Error* error, Clock::time_point deadline) const;
  void Finish(uint64_t call, const std::function<Status(const Pending&)>& status);

  base::HostedLoop loop_;
  // Null while not connected.
  std::unique_ptr<Session> session_;
  std::map<uint64_t, Pending> pending_;
  uint64_t last_call_ = 0;
  std::deque<Finished> finished_;
  bool closed_ = false;
};

}  // namespace pelmor
