// The libcurl multi handle of the message loop: every transfer of every transport runs in it, so
// that they share connections, resolved names, TLS sessions and the parsed CA store. All of these
// depend on the CAs, so `CurrentMulti` replaces it when they have changed.
//
// Attached to the loop that was current at the creation of the first transport. Destroyed with the
// last transport, or, if it was replaced, after its last transfer.
#pragma once

#include <curl/curl.h>

#include <cstdint>
#include <map>
#include <memory>

#include "base/callback.h"
#include "base/message_loop.h"
#include "base/time.h"
#include "kestle/http/ca_source.h"
#include "kestle/http/connections.h"
#include "kestle/http/socket_watch.h"

namespace kestle::http {

class CurlMulti : public std::enable_shared_from_this<CurlMulti> {
 public:
  using DoneCallback = base::Callback<void(CURLcode)>;

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
  // For the transfers that are started here.
  [[nodiscard]] CaSource* cas() { return &cas_; }

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
  CaSource cas_ = CaSource::OfLibcurl();
  SocketWatch sockets_;
  base::EventSource timer_;
  // Replaces the timer for what is due immediately: it needs no system call, and is never late.
  base::EventSource at_once_;
  uint64_t last_id_ = 0;
  std::map<CURL*, Running> running_;
  // True until a transfer has ended.
  bool is_first_ = true;
  // True if libcurl has not begun all the started transfers.
  bool starting_ = false;
  Connections connections_;
  // TLS sessions to resume. Otherwise libcurl would keep them in each transfer's handle.
  std::unique_ptr<CURLSH, ShareDeleter> share_;
  std::unique_ptr<CURLM, MultiDeleter> multi_;
};

// The multi handle for the requests that start now.
class CurrentMulti {
 public:
  // That of the current loop, which all transports own.
  static std::shared_ptr<CurrentMulti> Shared();

  explicit CurrentMulti(base::MessageLoop* loop);

  // Not null. Until the next call; a request must own it for as long as it runs.
  const std::shared_ptr<CurlMulti>& Get();

 private:
  base::MessageLoop* const loop_;
  std::shared_ptr<CurlMulti> multi_;
};

}  // namespace kestle::http
