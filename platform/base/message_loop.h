// The one message loop of a process, on sd-event.
//
// All callbacks of the process run on the loop's thread. The current loop of a thread is the one
// that it created last; timers, buses and transports attach to the current loop and must not
// outlive it. A library in a process with another loop uses a `HostedLoop`.
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
// An event source of the loop, disabled and released with the pointer.
using EventSource = std::unique_ptr<sd_event_source, EventSourceDeleter>;

class MessageLoop {
 public:
  enum NotCurrent { kNotCurrent };

  MessageLoop();
  // Does not change the thread's current loop.
  explicit MessageLoop(NotCurrent);
  ~MessageLoop();
  MessageLoop(const MessageLoop&) = delete;
  MessageLoop& operator=(const MessageLoop&) = delete;

  // The current loop of the calling thread. Precondition: there is one.
  static MessageLoop* Current();
  // Replaces the current loop and returns the previous one. Either may be null.
  static MessageLoop* SetCurrent(MessageLoop* loop);

  // Runs until `Quit` and returns its code.
  int Run();
  void Quit(int exit_code);
  // True after `Run`. From then on nothing can be attached and no task runs.
  [[nodiscard]] bool HasEnded() const;
  // Waits at most `timeout` for the next event and handles it. For tests.
  void RunOnce(TimeDelta timeout);

  // Runs `task` from the loop, after the current callback. Tasks run in the order of posting, one
  // per iteration, so that they do not delay other events. After the end of the loop they never
  // run.
  void PostTask(const Callback<void()>& task);

  // Owned by the loop. For the platform's libraries.
  [[nodiscard]] sd_event* event() const { return event_; }

 private:
  void ScheduleTask();
  static int OnTask(sd_event_source* source, void* loop);

  sd_event* event_ = nullptr;
  // Null if there is no task.
  EventSource task_source_;
  std::deque<Callback<void()>> tasks_;
};

}  // namespace base
