// A server with its own thread and loopback port whose response never ends: it accepts one
// connection, waits for the first byte of a request, and sends until the client disconnects or the
// server is destroyed.
//
// Safe to use from the test's thread.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <string>
#include <thread>

#include "kestle/http/testing/loopback.h"

namespace kestle::http {

class EndlessServer {
 public:
  // Sends `start`, then `again` repeatedly, with a `pause` before each.
  EndlessServer(std::string start, std::string again, std::chrono::milliseconds pause = {});
  ~EndlessServer();
  EndlessServer(const EndlessServer&) = delete;
  EndlessServer& operator=(const EndlessServer&) = delete;

  [[nodiscard]] std::string Url() const {
    return "http://127.0.0.1:" + std::to_string(listener_.port) + "/";
  }
  // How many times it has sent `again`.
  [[nodiscard]] size_t repeats() const { return repeats_; }
  [[nodiscard]] bool has_ended() const { return has_ended_; }

 private:
  void Run();

  const std::string start_;
  const std::string again_;
  const std::chrono::milliseconds pause_;
  const LoopbackSocket listener_;
  std::atomic<int> client_ = -1;
  std::atomic<size_t> repeats_ = 0;
  std::atomic<bool> has_ended_ = false;
  std::thread thread_;
};

}  // namespace kestle::http
