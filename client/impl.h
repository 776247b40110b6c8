// What a client is made of: a hosted loop, a connection that comes and goes, and the calls that are
// under way on it.
//
// One thread at a time. Callbacks run from `Process`, outside the loop, so that they may do all
// that their owner may.
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
  // Each does nothing but tell of `checked` when that is an error.
  Status Block(const Status& checked, Timeout timeout, const BlockingCall& call);
  void Start(const Status& checked, Timeout timeout, const AsyncCall& call, Callback done);

  [[nodiscard]] int PollFd() const { return loop_.PollFd(); }
  void Process();
  // No callback runs from now on.
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
  // Takes in what has arrived; a loss of the connection among it ends all pending calls.
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
