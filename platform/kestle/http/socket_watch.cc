#include "kestle/http/socket_watch.h"

#include <sys/epoll.h>
#include <systemd/sd-event.h>

#include "base/logging.h"

namespace kestle::http {

namespace {

uint32_t EpollEvents(int what) {
  uint32_t events = 0;
  if (what & CURL_POLL_IN) events |= EPOLLIN;
  if (what & CURL_POLL_OUT) events |= EPOLLOUT;
  return events;
}

}  // namespace

SocketWatch::SocketWatch(base::MessageLoop* loop, const ReadyCallback& ready)
    : loop_(loop), ready_(ready) {}

void SocketWatch::Set(curl_socket_t fd, int what) {
  if (what == CURL_POLL_REMOVE || loop_->HasEnded()) {
    sources_.erase(fd);
    return;
  }
  const auto source = sources_.find(fd);
  if (source == sources_.end()) return Add(fd, EpollEvents(what));
  CHECK(sd_event_source_set_io_events(source->second.get(), EpollEvents(what)) >= 0);
}

void SocketWatch::Add(curl_socket_t fd, uint32_t events) {
  sd_event_source* added = nullptr;
  const int result =
      sd_event_add_io(loop_->event(), &added, fd, events, &SocketWatch::OnReady, this);
  CHECK(result >= 0) << "Unable to watch a socket: error " << -result;
  sources_[fd].reset(added);
}

int SocketWatch::OnReady(sd_event_source*, int fd, uint32_t events, void* watch) {
  // For an error or a hang-up alone, libcurl checks the socket itself if no event is given.
  int ready = 0;
  if (events & EPOLLIN) ready |= CURL_CSELECT_IN;
  if (events & EPOLLOUT) ready |= CURL_CSELECT_OUT;
  // A copy: the callback may destroy this.
  const ReadyCallback callback = static_cast<SocketWatch*>(watch)->ready_;
  callback.Run(fd, ready);
  return 0;
}

}  // namespace kestle::http
