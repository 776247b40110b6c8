// The libcurl multi handle of the message loop: every transfer of every transport runs in it, and
// so they share connections, resolved names, TLS sessions and the parsed CA store.
//
// Attached to the loop that was current when it was made. Made with the first transport, gone with
// the last.
#pragma once

#include <curl/curl.h>

#include <cstdint>
#include <map>
#include <memory>

#include "base/callback.h"
#include "base/message_loop.h"
#include "base/time.h"
#include "kestle/http/connections.h"
#include "kestle/http/socket_watch.h"

namespace kestle::http {

class CurlMulti : public std::enable_shared_from_this<CurlMulti> {
 public:
  using DoneCallback = base::Callback<void(CURLcode)>;

  // The one of the current loop.
  static std::shared_ptr<CurlMulti> Shared();

  explicit CurlMulti(base::MessageLoop* loop);
  ~CurlMulti();
  CurlMulti(const CurlMulti&) = delete;
  CurlMulti& operator=(const CurlMulti&) = delete;

  // Starts a transfer. `done` runs once, from the loop, when it has ended and `easy`, not owned, is
  // free again; it may start and drop transfers. When this fails, `done` never runs. A `timeout` of
  // zero is none. What has arrived by the time at which the loop finds the timeout over still
  // counts: something else may have held the loop up.
  [[nodiscard]] CURLcode Start(CURL* easy, base::TimeDelta timeout, const DoneCallback& done);
  // Drops a transfer, unless it has ended: `done` does not run.
  void Drop(CURL* easy);

 private:
  struct Running {
    // Of all transfers, whose handles may be used again.
    uint64_t id;
    base::TimeDelta timeout;
    DoneCallback done;
    // Null until libcurl has begun, and without a timeout.
    base::EventSource deadline;
  };
  struct MultiDeleter {
    void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
  };

  struct ShareDeleter {
    void operator()(CURLSH* share) const { curl_share_cleanup(share); }
  };

  void Remove(CURL* easy);
  static int OnWatch(CURL* easy, curl_socket_t fd, int what, void* multi, void* socket);
  static int OnSetTimer(CURLM* handle, long timeout_milliseconds, void* multi);
  static int OnTimer(sd_event_source* source, uint64_t due, void* multi);
  static int OnDueAtOnce(sd_event_source* source, void* multi);
  static int OnDeadline(sd_event_source* source, uint64_t due, void* multi);
  // Lets libcurl work, then runs the callbacks of what has ended.
  void Act(curl_socket_t fd, int events);
  void StartDeadlines();
  [[nodiscard]] bool Runs(CURL* easy, uint64_t id) const;
  void EndAllLate();
  void EndLate(CURL* easy, uint64_t id);
  // False when there is nothing to be read for this transfer.
  [[nodiscard]] bool ReadArrived(CURL* easy);
  void End(CURL* easy, CURLcode result);

  base::MessageLoop* const loop_;
  SocketWatch sockets_;
  base::EventSource timer_;
  // In the timer's place for what is due at once: that needs no system call, and is never late.
  base::EventSource at_once_;
  uint64_t last_id_ = 0;
  std::map<CURL*, Running> running_;
  // Transfers have been started that libcurl has not begun.
  bool starting_ = false;
  Connections connections_;
  // TLS sessions, to be resumed. libcurl keeps them with each transfer's handle otherwise.
  std::unique_ptr<CURLSH, ShareDeleter> share_;
  std::unique_ptr<CURLM, MultiDeleter> multi_;
};

}  // namespace kestle::http
