#include "base/testing/run_until.h"

#include <chrono>

#include "base/message_loop.h"

namespace base {

bool RunUntil(const Callback<bool()>& condition) {
  // The real clock, since a test may have replaced the process's own.
  constexpr auto kDeadline = std::chrono::seconds(20);
  const auto end = std::chrono::steady_clock::now() + kDeadline;
  while (!condition.Run()) {
    if (std::chrono::steady_clock::now() > end) return false;
    MessageLoop::Current()->RunOnce(TimeDelta::FromMilliseconds(10));
  }
  return true;
}

}  // namespace base
