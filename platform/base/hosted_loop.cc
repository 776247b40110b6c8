#include "base/hosted_loop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <systemd/sd-event.h>

#include "base/logging.h"

namespace base {

namespace {

void Watch(int poll, int fd) {
  epoll_event event = {};
  event.events = EPOLLIN;
  CHECK(epoll_ctl(poll, EPOLL_CTL_ADD, fd, &event) == 0) << "Unable to watch the event loop";
}

}  // namespace

HostedLoop::Scope::Scope(HostedLoop* loop)
    : loop_(loop), previous_(MessageLoop::SetCurrent(&loop->loop_)) {}

HostedLoop::Scope::~Scope() {
  loop_->UpdatePollFd();
  MessageLoop::SetCurrent(previous_);
}

HostedLoop::HostedLoop()
    : loop_(MessageLoop::kNotCurrent),
      wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      poll_(epoll_create1(EPOLL_CLOEXEC)) {
  CHECK(wake_.is_valid() && poll_.is_valid()) << "No descriptor left";
  Watch(poll_.get(), sd_event_get_fd(loop_.event()));
  Watch(poll_.get(), wake_.get());
}

void HostedLoop::Dispatch() {
  const Scope scope(this);
  for (int i = 0; i < kMaxIterations && HasEvents(); ++i) sd_event_dispatch(loop_.event());
}

void HostedLoop::Wait(TimeDelta timeout) {
  if (HasEvents()) return;
  sd_event_wait(loop_.event(), static_cast<uint64_t>(timeout.InMicroseconds()));
}

bool HostedLoop::HasEvents() {
  sd_event* const event = loop_.event();
  // Twice: sd-event notices sources that were added after it was armed only the next time.
  for (int i = 0; i < 2; ++i) {
    if (sd_event_get_state(event) == SD_EVENT_ARMED) sd_event_wait(event, /*usec=*/0);
    // Armed for the process that polls the descriptor.
    if (sd_event_get_state(event) == SD_EVENT_INITIAL) sd_event_prepare(event);
  }
  return sd_event_get_state(event) == SD_EVENT_PENDING;
}

void HostedLoop::UpdatePollFd() {
  eventfd_t ignored = 0;
  eventfd_read(wake_.get(), &ignored);
  // The loop's own descriptor is not readable for events that the loop has already read.
  if (HasEvents() || due_) eventfd_write(wake_.get(), 1);
}

}  // namespace base
