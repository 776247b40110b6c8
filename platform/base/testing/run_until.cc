#include "base/testing/run_until.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>

#include "base/message_loop.h"

namespace base {

namespace {

// The deadlines of the unit tests are scaled only here: emulation is slow.
double DeadlineFactor() {
  const char* const factor = std::getenv("PELMOR_DEADLINE_FACTOR");
  return factor ? std::max(1.0, std::strtod(factor, nullptr)) : 1.0;
}

}  // namespace

bool RunUntil(const Callback<bool()>& condition) {
  // The real clock, since a test may have replaced `TimeTicks`.
  constexpr std::chrono::duration<double> kDeadline = std::chrono::seconds(20);
  const auto end = std::chrono::steady_clock::now() + kDeadline * DeadlineFactor();
  while (!condition.Run()) {
    if (std::chrono::steady_clock::now() > end) return false;
    MessageLoop::Current()->RunOnce(TimeDelta::FromMilliseconds(10));
  }
  return true;
}

}  // namespace base
