// Recent kernels start no process with an empty argument vector, so the test calls `main` directly.
// Like the daemon, it also logs to the machine's system log.
#define main PelmorMain
#include "ap/pelmor/main.cc"  // NOLINT(bugprone-suspicious-include): the function under test.
#undef main

#include <gtest/gtest.h>
#include <sysexits.h>

#include <cstdlib>

namespace {

TEST(MainDeathTest, StartsWithAnEmptyArgumentVector) {
  const auto start_without_a_bus = [] {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    char* arguments[] = {nullptr};
    exit(PelmorMain(0, arguments));
  };
  EXPECT_EXIT(start_without_a_bus(), testing::ExitedWithCode(EX_UNAVAILABLE),
              "Starting pelmor daemon");
}

}  // namespace
