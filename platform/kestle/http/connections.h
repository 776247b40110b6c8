// The sockets of libcurl's connections, and which transfer uses each.
//
// libcurl opens and closes them here; must outlive the multi handle. Of a connection that is kept,
// some versions of libcurl only ask whether the server has closed it. What a server sends
// unasked, say a 408 before it closes, would then be taken for the answer to the next request.
#pragma once

#include <curl/curl.h>

#include <map>

namespace kestle::http {

class Connections {
 public:
  Connections() = default;
  Connections(const Connections&) = delete;
  Connections& operator=(const Connections&) = delete;

  // Has the connections of this transfer opened and closed here.
  void Attach(CURL* easy);
  // `easy` waits for this socket.
  void NoteUse(curl_socket_t fd, CURL* easy);
  // From now on the transfer uses none. Shuts its connection down where more than its answer may
  // have been read.
  void NoteEnd(CURL* easy);

  // Shuts down every unused connection on which something has arrived, so that libcurl finds it
  // closed and empty.
  void ShutDownUnusedWithInput();
  // A socket of this transfer on which something has arrived; CURL_SOCKET_BAD when there is none.
  curl_socket_t FindInput(CURL* easy) const;

 private:
  static curl_socket_t OnOpen(void* connections, curlsocktype purpose, curl_sockaddr* address);
  static int OnClose(void* connections, curl_socket_t fd);

  // Null for a connection that no transfer uses.
  std::map<curl_socket_t, CURL*> users_;
};

}  // namespace kestle::http
