// The one message loop of a process, on sd-event.
//
// Everything in the process runs on the thread that runs it. The loop that a thread made last is
// its current one; timers, buses and transports attach to the current loop and must not outlive it.
// A library in someone else's process has a `HostedLoop`.
#pragma once

#include <deque>
#include <memory>

#include "base/callback.h"
#include "base/time.h"

struct sd_event;
struct sd_event_source;

namespace base {

struct EventSourceDeleter {
  void operator()(sd_event_source* source) const;
};
// A source of events of the loop; disabled and released with the pointer.
using EventSource = std::unique_ptr<sd_event_source, EventSourceDeleter>;

class MessageLoop {
 public:
  enum NotCurrent { kNotCurrent };

  MessageLoop();
  // Leaves the thread's current loop as it is.
  explicit MessageLoop(NotCurrent);
  ~MessageLoop();
  MessageLoop(const MessageLoop&) = delete;
  MessageLoop& operator=(const MessageLoop&) = delete;

  // The current loop of the calling thread. Precondition: there is one.
  static MessageLoop* Current();
  // Replaces it; returns the one before. Either may be null.
  static MessageLoop* SetCurrent(MessageLoop* loop);

  // Runs until `Quit`; returns the code given there.
  int Run();
  void Quit(int exit_code);
  // After `Run`. Nothing can be attached then, and no task runs any more.
  bool HasEnded() const;
  // Waits for the next event, `timeout` at most, and handles it. For tests.
  void RunOnce(TimeDelta timeout);

  // Runs `task` from the loop, after what is running now. Tasks run in the order of posting, fairly
  // with the loop's other events. After the end of the loop they never run.
  void PostTask(const Callback<void()>& task);

  // Owned by the loop. For the platform's own libraries.
  sd_event* event() const { return event_; }

 private:
  void ScheduleTask();
  static int OnTask(sd_event_source* source, void* loop);

  sd_event* event_ = nullptr;
  // Null when no task waits.
  EventSource task_source_;
  std::deque<Callback<void()>> tasks_;
};

}  // namespace base
