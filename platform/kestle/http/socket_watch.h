// The sockets that libcurl watches, as event sources of a message loop.
//
// Must not outlive the loop. After the loop has ended, libcurl may still ask to watch sockets, to
// close connections gracefully; they are not watched then.
#pragma once

#include <curl/curl.h>

#include <cstdint>
#include <map>

#include "base/callback.h"
#include "base/message_loop.h"

namespace kestle::http {

class SocketWatch {
 public:
  // `ready` runs from the loop, with a socket and what it is ready for: CURL_CSELECT_IN and _OUT.
  using ReadyCallback = base::Callback<void(curl_socket_t, int)>;

  SocketWatch(base::MessageLoop* loop, const ReadyCallback& ready);
  SocketWatch(const SocketWatch&) = delete;
  SocketWatch& operator=(const SocketWatch&) = delete;

  // Sets the awaited events of a socket. `what` is as passed to CURLMOPT_SOCKETFUNCTION.
  void Set(curl_socket_t fd, int what);
  void Clear() { sources_.clear(); }

 private:
  static int OnReady(sd_event_source* source, int fd, uint32_t events, void* watch);
  void Add(curl_socket_t fd, uint32_t events);

  base::MessageLoop* const loop_;
  const ReadyCallback ready_;
  std::map<curl_socket_t, base::EventSource> sources_;
};

}  // namespace kestle::http
