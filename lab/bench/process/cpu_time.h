// Measures the CPU time of a repeated action, including threads that it starts and ends.
#pragma once

#include <cstdio>
#include <ctime>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>

namespace bench {

inline double CpuMicroseconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

// The bytes of the request to post.
inline std::string ReadFile(const char* path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// Acts once to warm up, and then `count` times. Measures `act` only, not `prepare`.
template <typename Prepare, typename Act>
void PrintCpuOfOne(long count, const Prepare& prepare, const Act& act) {
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
