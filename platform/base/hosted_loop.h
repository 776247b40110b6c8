// A message loop for a library in a process with another event loop.
//
// One thread at a time. The process waits until `PollFd` is readable and then calls `Dispatch`. Any
// other use of the loop, or of an object attached to it, needs a `Scope`.
#pragma once

#include "base/message_loop.h"
#include "base/scoped_fd.h"
#include "base/time.h"

namespace base {

class HostedLoop {
 public:
  // Makes the loop its thread's current one; the destructor updates `PollFd`.
  class Scope {
   public:
    explicit Scope(HostedLoop* loop);
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    HostedLoop* const loop_;
    MessageLoop* const previous_;
  };

  // Does not change the thread's current loop.
  HostedLoop();
  HostedLoop(const HostedLoop&) = delete;
  HostedLoop& operator=(const HostedLoop&) = delete;

  // Valid and the same during this object's lifetime; for polling only.
  [[nodiscard]] int PollFd() const { return poll_.get(); }
  // Handles the pending events, at most `kMaxIterations`; never waits.
  void Dispatch();
  // Waits until an event is pending, at most for `timeout`. Needs a `Scope`.
  void Wait(TimeDelta timeout);
  // While true, `PollFd` is readable even without events. Takes effect at the end of the scope.
  void SetDue(bool due) { due_ = due; }

 private:
  static constexpr int kMaxIterations = 128;

  // True if an event is pending.
  bool HasEvents();
  void UpdatePollFd();

  MessageLoop loop_;
  ScopedFd wake_;
  ScopedFd poll_;
  bool due_ = false;
};

}  // namespace base
