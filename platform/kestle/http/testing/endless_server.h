// A server on a loopback port of its own, in a thread of its own, whose one answer never ends: it
// takes a connection, waits for the first bytes of a request, and sends until the client hangs up
// or it is destroyed.
//
// Safe to use from the test's thread.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>

#include "base/scoped_fd.h"

namespace kestle::http {

class EndlessServer {
 public:
  // Sends `start`, and then `again` again and again, with a `pause` before each.
  EndlessServer(std::string start, std::string again, std::chrono::milliseconds pause = {});
  ~EndlessServer();
  EndlessServer(const EndlessServer&) = delete;
  EndlessServer& operator=(const EndlessServer&) = delete;

  [[nodiscard]] std::string Url() const {
    return "http://127.0.0.1:" + std::to_string(port_) + "/";
  }
  // How often it has sent `again`.
  [[nodiscard]] size_t repeats() const { return repeats_; }
  [[nodiscard]] bool has_ended() const { return has_ended_; }

 private:
  void Run();

  const std::string start_;
  const std::string again_;
  const std::chrono::milliseconds pause_;
  const base::ScopedFd listener_;
  uint16_t port_ = 0;
  std::atomic<int> client_ = -1;
  std::atomic<size_t> repeats_ = 0;
  std::atomic<bool> has_ended_ = false;
  std::thread thread_;
};

}  // namespace kestle::http
