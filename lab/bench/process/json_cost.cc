// json_cost daemon|stream COUNT TIMES: writes a request of COUNT points TIMES times, so that its
// instructions can be counted. json_cost print COUNT: prints the body, if both writers agree.
#include <cstdio>
#include <string>

#include "check.h"
#include "process/points.h"

namespace {

int Print(const varelnos::ap::PointsByName& groups) {
  const std::string ours = bench::WriteAsDaemon(groups, bench::kStartTime);
  if (ours != bench::WriteAsStream(groups, bench::kStartTime))
    bench::Fail("json", "the bytes differ");
  fwrite(ours.data(), 1, ours.size(), stdout);
  return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) bench::Fail("usage", "json_cost daemon|stream|print COUNT [TIMES]");
  const std::string writer = argv[1];
  const auto points = bench::MakePoints(static_cast<size_t>(atol(argv[2])));
  const varelnos::ap::PointsByName groups = bench::Group(points);
  if (writer == "print") return Print(groups);
  const auto write = writer == "daemon" ? &bench::WriteAsDaemon : &bench::WriteAsStream;
  const long times = argc > 3 ? atol(argv[3]) : 1;
  size_t bytes = 0;
  for (long time = 0; time < times; ++time) bytes += write(groups, bench::kStartTime).size();
  printf("%zu\n", bytes);
}
