// baseline_noop NAME: runs the no-op service.
#include "baseline/noop_service.h"
#include "check.h"

int main(int argc, char** argv) {
  if (argc != 2) bench::Fail("usage", "baseline_noop NAME");
  bench::NoopService service;
  service.TakeName(argv[1]);
  service.Run();
}
