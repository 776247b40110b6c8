// Records the timeouts of method calls, for tests of timeouts that are too long to wait for.
//
// Interposes `sd_bus_call` and `sd_bus_call_async` in the test program, and records the calls of
// the calling thread.
#pragma once

#include <cstdint>
#include <vector>

namespace dbus {

// In microseconds, of all such calls since the previous `Take…`, in order.
std::vector<uint64_t> TakeBlockingCallTimeouts();
std::vector<uint64_t> TakeAsyncCallTimeouts();

}  // namespace dbus
