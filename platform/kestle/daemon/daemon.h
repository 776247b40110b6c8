// A process with a message loop, from its start to its exit code.
//
// Owns the loop: create objects that attach to it after the daemon, and destroy them before it.
// POSIX signals are handled in the loop, so handlers are not limited to async-signal-safe
// functions.
#pragma once

#include <map>

#include "base/callback.h"
#include "base/message_loop.h"

struct signalfd_siginfo;

namespace kestle {

class Daemon {
 public:
  // Returns true to remove the handler.
  using SignalHandler = base::Callback<bool(int signal)>;

  // From here on the process ignores SIGPIPE and SIGXFSZ and is not dumpable: it leaves no core
  // file, and other processes of its user can't read its memory.
  Daemon();
  // Drops pending signals that had a handler.
  virtual ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // Replaces the default action, or the previous handler, of a signal. Unregistering restores the
  // default action.
  virtual void RegisterHandler(int signal, const SignalHandler& handler);
  virtual void UnregisterHandler(int signal);

  // Starts up, runs the loop until `Quit`, and shuts down. Notifies the supervisor of readiness, of
  // liveness if WATCHDOG_USEC is set, and of stopping. Returns the exit code. Called once.
  [[nodiscard]] virtual int Run();

  // Ends the loop. Of several exit codes the first counts; `OnShutdown` may still change it.
  void Quit() { QuitWithExitCode(0); }
  void QuitWithExitCode(int exit_code);

 protected:
  // Runs before the loop. A nonzero result is the exit code; neither the loop nor `OnShutdown` runs
  // then.
  [[nodiscard]] virtual int OnInit();
  // Runs after the loop, and may change the exit code.
  virtual void OnShutdown(int* exit_code);
  // Runs on SIGHUP. True if the daemon has restarted within the process; on false it quits with
  // code 0, so that its supervisor restarts it.
  virtual bool OnRestart();

 private:
  struct Handler {
    SignalHandler callback;
    base::EventSource source;
  };

  static int OnSignal(sd_event_source* source, const signalfd_siginfo* info, void* daemon);
  bool OnTerminationSignal(int signal);
  bool OnRestartSignal(int signal);

  base::MessageLoop loop_;
  std::map<int, Handler> handlers_;
  bool quitting_ = false;
};

}  // namespace kestle
