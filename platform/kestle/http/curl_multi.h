// The libcurl multi handle of the message loop: every transfer of every transport runs in it, so
// that they share connections, resolved names, TLS sessions and the parsed CA store.
//
// Attached to the loop that was current at its creation. Created with the first transport,
// destroyed with the last.
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

  // The multi handle of the current loop.
  static std::shared_ptr<CurlMulti> Shared();

  explicit CurlMulti(base::MessageLoop* loop);
  ~CurlMulti();
  CurlMulti(const CurlMulti&) = delete;
  CurlMulti& operator=(const CurlMulti&) = delete;

  // Starts a transfer. `done` runs once, from the loop, when the transfer has ended and `easy` (not
  // owned) can be reused; it may start and drop transfers. A zero `timeout` means none. A response
  // that has arrived before the loop notices the timeout still counts, since something else may
  // have blocked the loop. False if libcurl rejects the transfer; `done` does not run then.
  [[nodiscard]] bool Start(CURL* easy, base::TimeDelta timeout, const DoneCallback& done);
  // Drops a transfer that has not ended; `done` does not run.
  void Drop(CURL* easy);

 private:
  struct Running {
    // Unique among all transfers, while handles are reused.
    uint64_t id;
    base::TimeDelta timeout;
    DoneCallback done;
    // Null until libcurl has begun the transfer, or without a timeout.
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
  // Lets libcurl handle the events, then runs the callbacks of the transfers that have ended.
  void Act(curl_socket_t fd, int events);
  void StartDeadlines();
  [[nodiscard]] bool Runs(CURL* easy, uint64_t id) const;
  void EndAllLate();
  void EndLate(CURL* easy, uint64_t id);
  // False if nothing is left to read for this transfer.
  [[nodiscard]] bool ReadArrived(CURL* easy);
  void End(CURL* easy, CURLcode result);

  base::MessageLoop* const loop_;
  SocketWatch sockets_;
  base::EventSource timer_;
  // Replaces the timer for what is due immediately: it needs no system call, and is never late.
  base::EventSource at_once_;
  uint64_t last_id_ = 0;
  std::map<CURL*, Running> running_;
  // True if libcurl has not begun all the started transfers.
  bool starting_ = false;
  Connections connections_;
  // TLS sessions to resume. Otherwise libcurl would keep them in each transfer's handle.
  std::unique_ptr<CURLSH, ShareDeleter> share_;
  std::unique_ptr<CURLM, MultiDeleter> multi_;
};

}  // namespace kestle::http
