// A process with a message loop, from its start to its exit code.
//
// Owns the loop: whatever attaches to the loop is made after the daemon and gone before it. POSIX
// signals are handled from the loop, so their handlers may do everything.
#pragma once

#include <map>

#include "base/callback.h"
#include "base/message_loop.h"

struct signalfd_siginfo;

namespace kestle {

class Daemon {
 public:
  // True to remove the handler.
  using SignalHandler = base::Callback<bool(int signal)>;

  // From here on the process ignores SIGPIPE, leaves no core file, and lets no other process of its
  // user look into its memory.
  Daemon();
  // Signals that have come too late to be handled are dropped.
  virtual ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // Handles the signal in place of its default action, and of a handler that it had before. A
  // signal without a handler has its default action again.
  virtual void RegisterHandler(int signal, const SignalHandler& handler);
  virtual void UnregisterHandler(int signal);

  // Starts, runs the loop until someone quits, and shuts down. Tells the supervisor when the daemon
  // is ready, that it still turns (if WATCHDOG_USEC asks for that), and when it stops. Returns the
  // exit code. Called once.
  [[nodiscard]] virtual int Run();

  // The exit code that `Run` is to return; the first one given counts.
  void Quit() { QuitWithExitCode(0); }
  void QuitWithExitCode(int exit_code);

 protected:
  // Runs before the loop. A result other than 0 is the exit code: the loop does not run, and there
  // is no `OnShutdown`.
  [[nodiscard]] virtual int OnInit();
  // Runs after the loop, and may change the exit code.
  virtual void OnShutdown(int* exit_code);
  // On SIGHUP: true when the daemon has started afresh within the process. On false it quits with
  // code 0, so that its supervisor starts it afresh.
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
