// The platform's metrics: counts of plain integers under a name, sent to the device's collector.
//
// Each sample goes out as one StatsD datagram, "NAME:VALUE|h", to 127.0.0.1:8125, or where
// STATSD_HOST (an IPv4 or IPv6 address) and STATSD_PORT in the environment say. Nothing waits,
// nothing is retried: without a collector a sample is lost.
#pragma once

#include <sys/socket.h>

#include <string>

#include "base/scoped_fd.h"

class MetricsLibrary {
 public:
  virtual ~MetricsLibrary() = default;

  // Reads the environment. To be called once, before the first sample.
  virtual void Init();

  // Counts one `sample` as it is, without bounds or buckets. False when it could not be sent, which
  // has no further effect.
  virtual bool SendSparse(const std::string& name, int sample);

 private:
  base::ScopedFd socket_;  // Not open: the collector's address is unusable.
  sockaddr_storage collector_{};
  socklen_t collector_size_ = 0;
};
