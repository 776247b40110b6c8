// The sockets of libcurl's connections, and which transfer uses each.
//
// libcurl opens and closes its sockets here, so this must outlive the multi handle. Some versions
// of libcurl reuse a connection unless the server has closed it. They would read unsolicited bytes,
// such as a 408 sent before closing, as the response to the next request; so this class shuts such
// connections down.
#pragma once

#include <curl/curl.h>

#include <map>

namespace kestle::http {

class Connections {
 public:
  Connections() = default;
  Connections(const Connections&) = delete;
  Connections& operator=(const Connections&) = delete;

  // Makes libcurl open and close the transfer's connections here.
  void Attach(CURL* easy);
  // The transfer uses this socket.
  void NoteUse(curl_socket_t fd, CURL* easy);
  // The transfer has ended. Shuts its connection down if more than its response may have been read.
  void NoteEnd(CURL* easy);

  // Shuts down every unused connection on which something has arrived, so that libcurl finds it
  // closed and empty.
  void ShutDownUnusedWithInput();
  // A socket of this transfer on which something has arrived; CURL_SOCKET_BAD if there is none.
  curl_socket_t FindInput(CURL* easy) const;

 private:
  static curl_socket_t OnOpen(void* connections, curlsocktype purpose, curl_sockaddr* address);
  static int OnClose(void* connections, curl_socket_t fd);

  // Null for a connection that no transfer uses.
  std::map<curl_socket_t, CURL*> users_;
};

}  // namespace kestle::http
