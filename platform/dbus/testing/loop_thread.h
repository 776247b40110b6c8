// A thread with its own event loop, for a fake that replies while the code under test blocks.
#pragma once

#include <systemd/sd-event.h>

#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include "base/message_loop.h"
#include "base/scoped_fd.h"

namespace dbus {

class LoopThread {
 public:
  LoopThread();
  // Ends the thread after the running task.
  ~LoopThread();
  LoopThread(const LoopThread&) = delete;
  LoopThread& operator=(const LoopThread&) = delete;

  // Runs the task on the thread and waits for its end. Must not be called from the thread itself.
  void Run(const std::function<void()>& task);

  // Owned by this. For use on the thread only.
  [[nodiscard]] sd_event* event() const { return event_; }

 private:
  static int OnWake(sd_event_source* source, int fd, uint32_t events, void* self);

  sd_event* event_ = nullptr;
  base::ScopedFd wake_;
  base::EventSource wake_source_;
  std::mutex mutex_;  // Guards `tasks_`.
  std::deque<std::function<void()>> tasks_;
  std::thread thread_;
};

}  // namespace dbus
