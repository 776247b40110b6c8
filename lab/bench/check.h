// Failures of the benchmark's programs: each ends the program and the measurement.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace bench {

[[noreturn]] inline void Fail(const char* what, const char* reason) {
  fprintf(stderr, "%s: %s\n", what, reason);
  exit(EXIT_FAILURE);
}

// For functions that return a negative error number on failure.
inline int Check(int result, const char* what) {
  if (result < 0) Fail(what, strerror(-result));
  return result;
}

}  // namespace bench
