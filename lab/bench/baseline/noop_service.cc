#include "baseline/noop_service.h"

#include <csignal>

#include "bus.h"

namespace bench {

namespace {

void ReadLabels(sd_bus_message* call) {
  Check(sd_bus_message_enter_container(call, 'a', "{ss}"), "labels");
  const char* key = nullptr;
  const char* value = nullptr;
  while (Check(sd_bus_message_read(call, "{ss}", &key, &value), "label") > 0) continue;
  Check(sd_bus_message_exit_container(call), "labels");
}

int OnRecordMetric(sd_bus_message* call, void* /*data*/, sd_bus_error* /*error*/) {
  const char* name = nullptr;
  double value = 0;
  Check(sd_bus_message_read_basic(call, 's', &name), "name");
  ReadLabels(call);
  Check(sd_bus_message_read(call, "v", "d", &value), "value");
  return sd_bus_reply_method_return(call, "");
}

constexpr sd_bus_vtable kVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD(kRecordMetric, kRecordMetricSignature, "", OnRecordMetric,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

}  // namespace

NoopService::NoopService() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  Check(sd_event_new(&event_), "event loop");
  Check(sd_event_add_signal(event_, nullptr, SIGTERM, nullptr, nullptr), "SIGTERM");
  Check(sd_bus_open_system(&bus_), "bus");
  Check(sd_bus_attach_event(bus_, event_, SD_EVENT_PRIORITY_NORMAL), "bus on the loop");
  Check(sd_bus_add_object_vtable(bus_, nullptr, kManagerPath, kManagerInterface, kVtable, nullptr),
        "object");
}

NoopService::~NoopService() {
  sd_bus_flush_close_unref(bus_);
  sd_event_unref(event_);
}

void NoopService::TakeName(const char* name) { Check(sd_bus_request_name(bus_, name, 0), "name"); }

void NoopService::Run() { Check(sd_event_loop(event_), "loop"); }

}  // namespace bench
