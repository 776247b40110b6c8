// baseline_noop NAME: the no-op service, and nothing else.
#include "baseline/noop_service.h"
#include "check.h"

int main(int argc, char** argv) {
  if (argc != 2) bench::Fail("usage", "baseline_noop NAME");
  bench::NoopService service;
  service.TakeName(argv[1]);
  service.Run();
}
