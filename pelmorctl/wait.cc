#include "pelmorctl/wait.h"

#include "base/message_loop.h"

namespace pelmorctl {

bool WaitUntil(const base::Callback<bool()>& condition, base::TimeDelta deadline) {
  const base::TimeTicks end = base::TimeTicks::Now() + deadline;
  while (!condition.Run()) {
    const base::TimeDelta left = end - base::TimeTicks::Now();
    if (left <= base::TimeDelta()) return false;
    base::MessageLoop::Current()->RunOnce(left);
  }
  return true;
}

void Wait(base::TimeDelta duration) {
  (void)WaitUntil([] { return false; }, duration);  // Always reaches the deadline.
}

}  // namespace pelmorctl
