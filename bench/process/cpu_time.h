// The CPU time of a repeated act, threads that it starts and ends included.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <ctime>

namespace bench {

inline double CpuMicroseconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

// Acts once for the warmth, and then so often for the measurement. In between it rests, so that a
// server that closes the connection has done so.
template <typename Act>
void TellCpuOfOne(long count, const Act& act) {
  constexpr useconds_t kRestMicroseconds = 5000;
  act();
  double spent = 0;
  for (long done = 0; done < count; ++done) {
    usleep(kRestMicroseconds);
    const double before = CpuMicroseconds();
    act();
    spent += CpuMicroseconds() - before;
  }
  printf("%.2f\n", spent / static_cast<double>(count));
}

}  // namespace bench
