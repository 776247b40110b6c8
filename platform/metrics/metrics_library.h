// The platform's metrics: integer samples with a name, sent to the device's collector.
//
// Each sample is a StatsD datagram, "NAME:VALUE|TYPE", to 127.0.0.1:8125, or to STATSD_HOST (an
// IPv4 or IPv6 address) and STATSD_PORT of the environment. The type is "h", a histogram, or "ms",
// a timer, if STATSD_TYPE is that. Sending does not block and is not retried: without a collector
// the sample is lost.
#pragma once

#include <sys/socket.h>

#include <string>

#include "base/scoped_fd.h"

class MetricsLibrary {
 public:
  virtual ~MetricsLibrary() = default;

  // Reads the environment. Call it once, before the first sample.
  virtual void Init();

  // Sends `sample` unchanged, without bounds or buckets. False if it could not be sent; callers
  // may ignore that.
  virtual bool SendSparse(const std::string& name, int sample);

 private:
  base::ScopedFd socket_;  // Invalid if the environment is unusable.
  std::string type_;
  sockaddr_storage collector_{};
  socklen_t collector_size_ = 0;
};
