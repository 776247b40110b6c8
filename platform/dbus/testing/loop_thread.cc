#include "dbus/testing/loop_thread.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <semaphore>
#include <utility>

#include "base/logging.h"

namespace dbus {

LoopThread::LoopThread() : wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  CHECK(sd_event_new(&event_) >= 0);
  sd_event_source* source = nullptr;
  CHECK(sd_event_add_io(event_, &source, wake_.get(), EPOLLIN, &LoopThread::OnWake, this) >= 0);
  wake_source_.reset(source);
  thread_ = std::thread([this] { sd_event_loop(event_); });
}

LoopThread::~LoopThread() {
  Run([this] { sd_event_exit(event_, 0); });
  thread_.join();
  wake_source_.reset();
  sd_event_unref(event_);
}

void LoopThread::Run(const std::function<void()>& task) {
  std::binary_semaphore done(0);
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    tasks_.emplace_back([&] {
      task();
      done.release();
    });
  }
  eventfd_write(wake_.get(), 1);
  done.acquire();
}

int LoopThread::OnWake(sd_event_source* /*source*/, int fd, uint32_t /*events*/, void* self) {
  auto* const thread = static_cast<LoopThread*>(self);
  eventfd_t ignored = 0;
  eventfd_read(fd, &ignored);
  std::deque<std::function<void()>> tasks;
  {
    const std::lock_guard<std::mutex> lock(thread->mutex_);
    tasks.swap(thread->tasks_);
  }
  for (const auto& task : tasks) task();
  return 0;
}

}  // namespace dbus
