// queue_heap COUNT: fills the unsent and the pending queue with COUNT points each, as after a
// failed upload, and prints the bytes that the allocator uses for them, including its own overhead.
#include <malloc.h>

#include <cstdio>
#include <cstdlib>

#include "ap/common/configuration.h"
#include "ap/pelmor/point_queue.h"
#include "check.h"
#include "process/points.h"

namespace {

size_t AllocatedBytes() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

void Record(size_t count, varelnos::ap::PointQueue* pending) {
  for (size_t number = 0; number < count; ++number)
    (void)pending->Append(bench::MakePoint(number));  // Drops what is over the limit.
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) bench::Fail("usage", "queue_heap COUNT");
  const auto count = static_cast<size_t>(atol(argv[1]));
  const size_t before = AllocatedBytes();
  varelnos::ap::PointQueue pending(varelnos::ap::kMaxUploadPoints);
  std::deque<varelnos::ap::MetricPoint> unsent;
  Record(count, &pending);
  // None of them is too old.
  pending.MoveTo(&unsent, base::Time());
  Record(count, &pending);
  const size_t full = AllocatedBytes();
  printf("%zu points, %zu bytes\n", pending.size() + unsent.size(), full - before);
}
