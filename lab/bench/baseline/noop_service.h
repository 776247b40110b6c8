// The least work of a D-Bus service with this interface: it reads all arguments of RecordMetric and
// sends an empty reply. One thread, one event loop.
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

namespace bench {

class NoopService {
 public:
  NoopService();
  ~NoopService();
  NoopService(const NoopService&) = delete;
  NoopService& operator=(const NoopService&) = delete;

  void TakeName(const char* name);
  // Returns on SIGTERM.
  void Run();

 private:
  sd_event* event_ = nullptr;
  sd_bus* bus_ = nullptr;
};

}  // namespace bench
