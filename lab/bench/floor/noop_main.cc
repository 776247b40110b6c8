// floor_noop NAME: the no-op service, and nothing else.
#include "check.h"
#include "floor/noop_service.h"

int main(int argc, char** argv) {
  if (argc != 2) bench::Fail("usage", "floor_noop NAME");
  bench::NoopService service;
  service.TakeName(argv[1]);
  service.Run();
}
