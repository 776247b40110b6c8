#include "kestle/daemon/daemon.h"

#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <systemd/sd-daemon.h>
#include <systemd/sd-event.h>

#include <csignal>
#include <cstring>
#include <utility>

#include "base/logging.h"

namespace kestle {

Daemon::Daemon() {
  // A write to a closed socket or pipe, or past the file size limit, must fail instead of ending
  // the process.
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  // The daemon's memory contains secrets.
  CHECK(prctl(PR_SET_DUMPABLE, 0) == 0);
}

Daemon::~Daemon() {
  // A signal that arrived after the end of the loop would now take its default action, and replace
  // the exit code.
  sigset_t handled;
  sigemptyset(&handled);
  for (const auto& [signal, handler] : handlers_) sigaddset(&handled, signal);
  constexpr timespec kAtOnce{};
  while (sigtimedwait(&handled, nullptr, &kAtOnce) > 0) continue;
}

void Daemon::RegisterHandler(int signal, const SignalHandler& handler) {
  UnregisterHandler(signal);
  sd_event_source* source = nullptr;
  // The loop reads the signal from a signalfd, so it stays blocked while the source lives.
  const int result = sd_event_add_signal(loop_.event(), &source, signal | SD_EVENT_SIGNAL_PROCMASK,
                                         &Daemon::OnSignal, this);
  CHECK(result >= 0) << "Unable to handle signal " << signal;
  handlers_[signal] = {handler, base::EventSource(source)};
}

void Daemon::UnregisterHandler(int signal) { handlers_.erase(signal); }

int Daemon::Run() {
  RegisterHandler(SIGTERM, base::Bind(&Daemon::OnTerminationSignal, base::Unretained(this)));
  RegisterHandler(SIGINT, base::Bind(&Daemon::OnTerminationSignal, base::Unretained(this)));
  RegisterHandler(SIGHUP, base::Bind(&Daemon::OnRestartSignal, base::Unretained(this)));
  if (const int failure = OnInit(); failure != 0) return failure;
  constexpr int kKeepEnvironment = 0;
  sd_notify(kKeepEnvironment, "READY=1");
  // Fed from the loop, so that a stalled loop is detected. Does nothing without WATCHDOG_USEC.
  const int result = sd_event_set_watchdog(loop_.event(), /*b=*/1);
  if (result < 0) LOG(WARNING) << "Unable to feed the watchdog: " << strerror(-result);
  int exit_code = loop_.Run();
  OnShutdown(&exit_code);
  sd_notify(kKeepEnvironment, "STOPPING=1");
  return exit_code;
}

void Daemon::QuitWithExitCode(int exit_code) {
  if (std::exchange(quitting_, true)) return;
  loop_.Quit(exit_code);
}

int Daemon::OnInit() { return 0; }

void Daemon::OnShutdown(int*) {}

bool Daemon::OnRestart() { return false; }

int Daemon::OnSignal(sd_event_source*, const signalfd_siginfo* info, void* daemon) {
  auto* const self = static_cast<Daemon*>(daemon);
  const auto signal = static_cast<int>(info->ssi_signo);
  // A copy, since a handler may replace or remove itself.
  const SignalHandler callback = self->handlers_.at(signal).callback;
  if (callback.Run(signal)) self->UnregisterHandler(signal);
  return 0;
}

bool Daemon::OnTerminationSignal(int) {
  Quit();
  return false;
}

bool Daemon::OnRestartSignal(int) {
  if (!OnRestart()) Quit();
  return false;
}

}  // namespace kestle
