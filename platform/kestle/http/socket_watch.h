// The sockets on which libcurl waits, as sources of events of a message loop.
//
// Must not outlive the loop's object, but its run: libcurl may ask for sockets when the loop has
// ended, to close connections gracefully. It then waits for none of them.
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

  // Replaces what is awaited of a socket. `what` is as CURLMOPT_SOCKETFUNCTION passes it.
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
