// A timer that ticks until it is stopped or destroyed. Attaches to the current message loop.
#pragma once

#include <string>

#include "base/callback.h"
#include "base/message_loop.h"
#include "base/time.h"

namespace base {

class RepeatingTimer {
 public:
  RepeatingTimer() = default;
  RepeatingTimer(const RepeatingTimer&) = delete;
  RepeatingTimer& operator=(const RepeatingTimer&) = delete;

  // Runs `task` every `period` of the monotonic clock, first after one period. Ticks that a busy
  // loop missed are skipped. A zero or negative period ticks once per iteration of the loop,
  // without delaying other events. `location` identifies the caller in diagnostics.
  void Start(const std::string& location, TimeDelta period, const Callback<void()>& task);
  void Stop();

 private:
  static int OnTick(sd_event_source* source, uint64_t due, void* timer);

  std::string location_;
  TimeDelta period_;
  Callback<void()> task_;
  EventSource source_;
};

}  // namespace base
