// The platform's metrics: counts of plain integers under a name.
#pragma once

#include <string>

class MetricsLibrary {
 public:
  virtual ~MetricsLibrary() = default;

  virtual void Init() {}
  // Counts one `sample` as it is, without bounds or buckets. True when it was handed on; a failure
  // has no further effect.
  virtual bool SendSparse(const std::string& name, int sample);
};
