// The least that a D-Bus service of this interface can do: it reads the arguments of RecordMetric
// to their end and answers with nothing. One thread, one loop.
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
  // Until SIGTERM.
  void Run();

 private:
  sd_event* event_ = nullptr;
  sd_bus* bus_ = nullptr;
};

}  // namespace bench
