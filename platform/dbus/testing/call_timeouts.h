// The time-outs of method calls, for tests that can't wait as long.
//
// A test program that uses this has its calls of `sd_bus_call` and `sd_bus_call_async` pass through
// it. For the thread that runs the test.
#pragma once

#include <cstdint>
#include <vector>

namespace dbus {

// In microseconds, of all such calls since the last time, in order.
std::vector<uint64_t> TakeBlockingCallTimeouts();
std::vector<uint64_t> TakeAsyncCallTimeouts();

}  // namespace dbus
