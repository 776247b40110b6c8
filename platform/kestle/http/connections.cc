#include "kestle/http/connections.h"

#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kestle::http {

namespace {

// The maximum payload of a record (RFC 8446, section 5.1).
constexpr curl_off_t kTlsRecordBytes = 16384;

bool HasInput(curl_socket_t fd) {
  pollfd polled{fd, POLLIN, 0};
  return poll(&polled, 1, /*timeout=*/0) == 1;
}

void ShutDownAndEmpty(curl_socket_t fd) {
  shutdown(fd, SHUT_RDWR);
  char discarded[4096];
  while (recv(fd, discarded, sizeof(discarded), MSG_DONTWAIT) > 0) {
  }
}

// Surplus bytes can be in the same TLS record as the end of a response. libcurl notices them if the
// response has only one record. Of a later record it reads only the expected bytes, and the TLS
// library buffers the rest.
bool MayHaveReadMore(CURL* easy) {
  const char* scheme = nullptr;
  long head_bytes = 0;
  curl_off_t body_bytes = 0;
  curl_easy_getinfo(easy, CURLINFO_SCHEME, &scheme);
  curl_easy_getinfo(easy, CURLINFO_HEADER_SIZE, &head_bytes);
  curl_easy_getinfo(easy, CURLINFO_SIZE_DOWNLOAD_T, &body_bytes);
  return scheme && strcasecmp(scheme, "https") == 0 && head_bytes + body_bytes >= kTlsRecordBytes;
}

}  // namespace

void Connections::Attach(CURL* easy) {
  curl_easy_setopt(easy, CURLOPT_OPENSOCKETFUNCTION, &Connections::OnOpen);
  curl_easy_setopt(easy, CURLOPT_OPENSOCKETDATA, this);
  curl_easy_setopt(easy, CURLOPT_CLOSESOCKETFUNCTION, &Connections::OnClose);
  curl_easy_setopt(easy, CURLOPT_CLOSESOCKETDATA, this);
}

void Connections::NoteUse(curl_socket_t fd, CURL* easy) {
  // libcurl also watches internal sockets, such as the one by which its resolver wakes it.
  const auto connection = users_.find(fd);
  if (connection != users_.end()) connection->second = easy;
}

void Connections::NoteEnd(CURL* easy) {
  const bool must_end = MayHaveReadMore(easy);
  for (auto& [fd, user] : users_) {
    if (user != easy) continue;
    user = nullptr;
    if (must_end) ShutDownAndEmpty(fd);
  }
}

void Connections::ShutDownUnusedWithInput() {
  for (const auto& [fd, user] : users_) {
    if (user == nullptr && HasInput(fd)) ShutDownAndEmpty(fd);
  }
}

curl_socket_t Connections::FindInput(CURL* easy) const {
  for (const auto& [fd, user] : users_) {
    if (user == easy && HasInput(fd)) return fd;
  }
  return CURL_SOCKET_BAD;
}

curl_socket_t Connections::OnOpen(void* connections, curlsocktype, curl_sockaddr* address) {
  const curl_socket_t fd =
      socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
  if (fd < 0) return CURL_SOCKET_BAD;
  static_cast<Connections*>(connections)->users_[fd] = nullptr;
  return fd;
}

int Connections::OnClose(void* connections, curl_socket_t fd) {
  static_cast<Connections*>(connections)->users_.erase(fd);
  return close(fd);
}

}  // namespace kestle::http
