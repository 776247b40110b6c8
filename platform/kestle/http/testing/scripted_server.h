// An HTTP server with its own thread and loopback port that sends scripted bytes and records the
// requests.
//
// The first request gets the first reply, and so on; a request waits until there is a reply for it.
// Thread-safe.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/scoped_fd.h"
#include "kestle/http/testing/loopback.h"

namespace kestle::http {

// A complete HTTP/1.1 response with its length.
std::string HttpReply(int status, const std::string& body);

class ScriptedServer {
 public:
  enum class After { kKeepOpen, kClose };
  struct Received {
    // Connections are numbered from 1, in the order of their arrival.
    int connection = 0;
    // From the request line to the blank line.
    std::string head;
    std::string body;

    [[nodiscard]] bool HasLine(const std::string& line) const;
    // The number of headers of this name, ignoring case.
    [[nodiscard]] int CountHeaders(const std::string& name) const;
  };

  ScriptedServer();
  ~ScriptedServer();
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  uint16_t port() const { return listener_.port; }
  std::string Url(const std::string& path = "/") const;

  void Reply(std::string bytes, After after = After::kKeepOpen);
  // Sends unsolicited bytes on this connection, and returns when they have arrived at its other
  // end.
  void SendUnasked(int connection, std::string bytes, After after = After::kKeepOpen);

  std::vector<Received> requests() const;
  // Connections that the client closed.
  size_t hang_ups() const;

 private:
  struct Connection {
    base::ScopedFd fd;
    std::string unread;
  };
  struct Scripted {
    std::string bytes;
    After after = After::kKeepOpen;
  };

  void Run();
  void Accept();
  void Read(int number);
  bool TakeRequest(int number, std::string* unread);
  void ServeWaiting();
  void ServeUnasked();

  const LoopbackSocket listener_;
  const base::ScopedFd wake_;

  // Used by the thread only.
  std::map<int, Connection> connections_;
  int last_connection_ = 0;

  mutable std::mutex mutex_;
  bool stopping_ = false;
  std::deque<Scripted> replies_;
  std::deque<int> waiting_;
  std::map<int, Scripted> unasked_;
  std::condition_variable unasked_sent_;
  std::vector<Received> requests_;
  size_t hang_ups_ = 0;

  std::thread thread_;
};

}  // namespace kestle::http
