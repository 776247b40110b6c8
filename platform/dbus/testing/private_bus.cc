#include "dbus/testing/private_bus.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "base/logging.h"
#include "base/scoped_fd.h"

namespace dbus {

namespace fs = std::filesystem;

namespace {
constexpr char kAddressVariable[] = "DBUS_SYSTEM_BUS_ADDRESS";

std::string Config(const std::string& folder, const std::string& rules) {
  return R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <listen>unix:path=)" +
         folder + R"(/bus</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
    <allow own="*"/>)" +
         rules + R"(
  </policy>
</busconfig>
)";
}

[[noreturn]] void BecomeDaemon(const std::string& config, int address_fd) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const std::string config_option = "--config-file=" + config;
  const std::string address_option = "--print-address=" + std::to_string(address_fd);
  execlp("dbus-daemon", "dbus-daemon", "--nofork", "--nopidfile", "--nosyslog",
         config_option.c_str(), address_option.c_str(), nullptr);
  _exit(127);
}

// The daemon prints one line once it listens.
std::string ReadLine(int fd) {
  std::string line;
  char character = 0;
  while (read(fd, &character, 1) == 1 && character != '\n') line.push_back(character);
  return line;
}

}  // namespace

PrivateBus::PrivateBus(const std::string& rules) {
  folder_ = (fs::temp_directory_path() / "bus.XXXXXX").string();
  CHECK(mkdtemp(folder_.data()) != nullptr);
  const std::string config = folder_ + "/bus.conf";
  std::ofstream(config) << Config(folder_, rules);

  int ends[2];
  CHECK(pipe(ends) == 0);
  const base::ScopedFd reading(ends[0]);
  base::ScopedFd writing(ends[1]);
  fcntl(reading.get(), F_SETFD, FD_CLOEXEC);
  daemon_ = fork();
  CHECK(daemon_ >= 0);
  if (daemon_ == 0) BecomeDaemon(config, writing.get());
  writing = base::ScopedFd();
  address_ = ReadLine(reading.get());
  CHECK(!address_.empty()) << "The bus did not start";
  setenv(kAddressVariable, address_.c_str(), /*overwrite=*/1);
}

PrivateBus::~PrivateBus() {
  Stop();
  unsetenv(kAddressVariable);
  std::error_code ignored;
  fs::remove_all(folder_, ignored);
}

void PrivateBus::Pause() const {
  kill(daemon_, SIGSTOP);
  waitpid(daemon_, nullptr, WUNTRACED);
}

void PrivateBus::Resume() const { kill(daemon_, SIGCONT); }

void PrivateBus::Stop() {
  if (daemon_ < 0) return;
  kill(daemon_, SIGKILL);
  waitpid(daemon_, nullptr, 0);
  daemon_ = -1;
}

}  // namespace dbus
