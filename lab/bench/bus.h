// The interface that is measured, and a loop over a bus connection.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>

#include "check.h"

namespace bench {

inline constexpr char kManagerPath[] = "/org/quintara/ap/Pelmor/Manager";
inline constexpr char kManagerInterface[] = "org.quintara.ap.Pelmor.Manager";
inline constexpr char kRecordMetric[] = "RecordMetric";
inline constexpr char kRecordMetricSignature[] = "sa{ss}v";

inline constexpr uint64_t kForever = UINT64_MAX;

// Processes one message, or waits for one.
inline void ProcessOrWait(sd_bus* bus, uint64_t timeout_microseconds = kForever) {
  if (Check(sd_bus_process(bus, nullptr), "process") > 0) return;
  Check(sd_bus_wait(bus, timeout_microseconds), "wait");
}

}  // namespace bench
