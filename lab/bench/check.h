// What the programs of the benchmark share: a failure ends them, with its reason, and with it the
// measurement.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace bench {

[[noreturn]] inline void Fail(const char* what, const char* why) {
  fprintf(stderr, "%s: %s\n", what, why);
  exit(EXIT_FAILURE);
}

// For calls of libsystemd and the like, which return a negative error number.
inline int Check(int result, const char* what) {
  if (result < 0) Fail(what, strerror(-result));
  return result;
}

inline constexpr char kManagerPath[] = "/org/quintara/ap/Pelmor/Manager";
inline constexpr char kManagerInterface[] = "org.quintara.ap.Pelmor.Manager";
inline constexpr char kRecordMetric[] = "RecordMetric";
inline constexpr char kRecordMetricSignature[] = "sa{ss}v";

}  // namespace bench
