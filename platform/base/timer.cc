#include "base/timer.h"

#include <systemd/sd-event.h>

#include <algorithm>
#include <cstdint>

#include "base/logging.h"

namespace base {

namespace {
// The allowed delay of a tick, so that the kernel can merge wake-ups.
constexpr TimeDelta kTickAccuracy = TimeDelta::FromMilliseconds(1);

// A libsystemd with 32-bit seconds, as on 32-bit ARM, cannot set a later timer and ends the loop.
// The clock reaches this time 68 years after boot.
constexpr TimeTicks kLatestDue = TimeTicks() + TimeDelta::FromSeconds(int64_t{INT32_MAX} - 1);

uint64_t DueAt(TimeTicks time) {
  return static_cast<uint64_t>(std::min(time, kLatestDue).ToInternalValue());
}

// The monotonic time at the start of the loop's iteration.
TimeTicks LoopNow() {
  uint64_t now = 0;
  sd_event_now(MessageLoop::Current()->event(), CLOCK_MONOTONIC, &now);
  return TimeTicks::FromInternalValue(static_cast<int64_t>(now));
}

}  // namespace

void RepeatingTimer::Start(const std::string& location, TimeDelta period,
                           const Callback<void()>& task) {
  location_ = location;
  period_ = std::max(period, TimeDelta());
  task_ = task;
  sd_event_source* source = nullptr;
  const int result = sd_event_add_time(
      MessageLoop::Current()->event(), &source, CLOCK_MONOTONIC, DueAt(LoopNow() + period_),
      static_cast<uint64_t>(kTickAccuracy.InMicroseconds()), &RepeatingTimer::OnTick, this);
  CHECK(result >= 0) << "Unable to start the timer of " << location_ << ": error " << -result;
  source_.reset(source);
  sd_event_source_set_description(source, location_.c_str());
  sd_event_source_set_enabled(source, SD_EVENT_ON);
}

void RepeatingTimer::Stop() { source_.reset(); }

int RepeatingTimer::OnTick(sd_event_source* source, uint64_t due, void* timer) {
  auto* const self = static_cast<RepeatingTimer*>(timer);
  // Aligned to the first tick, but not in the past: missed ticks are skipped.
  const TimeTicks next = TimeTicks::FromInternalValue(static_cast<int64_t>(due)) + self->period_;
  const TimeTicks not_missed = std::max(next, LoopNow());
  sd_event_source_set_time(source, DueAt(not_missed));
  // A copy, because the task may stop or restart this timer.
  const Callback<void()> task = self->task_;
  task.Run();
  return 0;
}

}  // namespace base
