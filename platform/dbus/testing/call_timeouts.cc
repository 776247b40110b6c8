#include "dbus/testing/call_timeouts.h"

#include <dlfcn.h>
#include <systemd/sd-bus.h>

#include <utility>

#include "base/logging.h"

namespace dbus {

namespace {

// Per thread, since other threads are fake services.
thread_local std::vector<uint64_t> g_blocking;
thread_local std::vector<uint64_t> g_async;

// The interposed function of that name.
template <typename Function>
Function* Original(const char* name) {
  auto* const original = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
  CHECK(original != nullptr) << "No function " << name;
  return original;
}

}  // namespace

std::vector<uint64_t> TakeBlockingCallTimeouts() { return std::exchange(g_blocking, {}); }
std::vector<uint64_t> TakeAsyncCallTimeouts() { return std::exchange(g_async, {}); }

}  // namespace dbus

extern "C" int sd_bus_call(sd_bus* connection, sd_bus_message* call, uint64_t timeout,
                           sd_bus_error* error, sd_bus_message** reply) {
  static const auto original = dbus::Original<decltype(sd_bus_call)>("sd_bus_call");
  dbus::g_blocking.push_back(timeout);
  return original(connection, call, timeout, error, reply);
}

extern "C" int sd_bus_call_async(sd_bus* connection, sd_bus_slot** slot, sd_bus_message* call,
                                 sd_bus_message_handler_t callback, void* data, uint64_t timeout) {
  static const auto original = dbus::Original<decltype(sd_bus_call_async)>("sd_bus_call_async");
  dbus::g_async.push_back(timeout);
  return original(connection, slot, call, callback, data, timeout);
}
