// The CPU time of a repeated act, threads that it starts and ends included.
#pragma once

#include <cstdio>
#include <ctime>
#include <utility>

namespace bench {

inline double CpuMicroseconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

// Acts once for the warmth, and then so often for the measurement; what it prepares each time for
// the act is not counted.
template <typename Prepare, typename Act>
void TellCpuOfOne(long count, const Prepare& prepare, const Act& act) {
  act(prepare());
  double spent = 0;
  for (long done = 0; done < count; ++done) {
    auto prepared = prepare();
    const double before = CpuMicroseconds();
    act(std::move(prepared));
    spent += CpuMicroseconds() - before;
  }
  printf("%.2f\n", spent / static_cast<double>(count));
}

}  // namespace bench
