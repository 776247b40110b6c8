// starter NAME PROGRAM [ARGUMENT...]: starts the program, prints the microseconds until it owned
// the name on the bus, and ends it.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <string>

#include "bus.h"

namespace {

using Clock = std::chrono::steady_clock;

int OnOwnerChanged(sd_bus_message* signal, void* owned, sd_bus_error* /*error*/) {
  const char* name = nullptr;
  const char* old_owner = nullptr;
  const char* new_owner = nullptr;
  bench::Check(sd_bus_message_read(signal, "sss", &name, &old_owner, &new_owner), "signal");
  *static_cast<bool*>(owned) = *new_owner != '\0';
  return 0;
}

void AwaitChange(sd_bus* bus, const bool& owned, bool wanted) {
  while (owned != wanted) bench::ProcessOrWait(bus);
}

pid_t Spawn(char** command) {
  posix_spawn_file_actions_t silent;
  posix_spawn_file_actions_init(&silent);
  posix_spawn_file_actions_addopen(&silent, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&silent, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = 0;
  bench::Check(-posix_spawn(&pid, command[0], &silent, nullptr, command, environ), command[0]);
  posix_spawn_file_actions_destroy(&silent);
  return pid;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) bench::Fail("usage", "starter NAME PROGRAM [ARGUMENT...]");
  const std::string rule =
      "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" +
      std::string(argv[1]) + "'";
  sd_bus* bus = nullptr;
  bool owned = false;
  bench::Check(sd_bus_open_system(&bus), "bus");
  bench::Check(sd_bus_add_match(bus, nullptr, rule.c_str(), OnOwnerChanged, &owned), "match");
  const Clock::time_point started = Clock::now();
  const pid_t pid = Spawn(argv + 2);
  AwaitChange(bus, owned, true);
  const std::chrono::duration<double, std::micro> took = Clock::now() - started;
  kill(pid, SIGTERM);
  waitpid(pid, nullptr, 0);
  AwaitChange(bus, owned, false);
  printf("%.1f\n", took.count());
  sd_bus_flush_close_unref(bus);
}
