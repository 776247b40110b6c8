// A message loop inside someone else's: for a library in a process with a loop of its own.
//
// One thread at a time. The process waits until `PollFd` is readable, and then calls `Dispatch`.
// Whatever else touches the loop, or what is attached to it, does so under a `Scope`.
#pragma once

#include "base/message_loop.h"
#include "base/scoped_fd.h"

namespace base {

class HostedLoop {
 public:
  // While it lives the loop is its thread's current one; at its end `PollFd` is up to date.
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

  // Leaves the thread's current loop as it is.
  HostedLoop();
  HostedLoop(const HostedLoop&) = delete;
  HostedLoop& operator=(const HostedLoop&) = delete;

  // Valid and the same as long as this lives; to be polled only.
  int PollFd() const { return poll_.get(); }
  // Handles the events that are there, `kMaxTurns` at most; never waits.
  void Dispatch();
  // While true, `PollFd` is readable whatever the loop's events are. From the end of the scope.
  void SetDue(bool due) { due_ = due; }

 private:
  static constexpr int kMaxTurns = 128;

  // True when an event is there to be handled.
  bool HasEvents();
  void UpdatePollFd();

  MessageLoop loop_;
  ScopedFd wake_;
  ScopedFd poll_;
  bool due_ = false;
};

}  // namespace base
