#include "kestle/http/curl_multi.h"

#include <systemd/sd-event.h>

#include <cstdlib>
#include <cstring>

#include "base/logging.h"
#include "base/secret.h"

namespace kestle::http {

namespace {

// Unused connections that are kept open: one or two for each of the few servers that there are.
constexpr long kMaxIdleConnections = 4;
// How late libcurl's timer may fire, so that the kernel can join wake-ups.
constexpr uint64_t kTimerAccuracyMicroseconds = 1000;

void InitLibcurl() {
  // It keeps copies of the headers and bodies that it sends, and these hold secrets.
  static const CURLcode result = curl_global_init_mem(
      CURL_GLOBAL_DEFAULT, &malloc, &base::FreeWiped, &base::ReallocateWiped, &strdup, &calloc);
  CHECK(result == CURLE_OK) << "Unable to initialise libcurl: " << curl_easy_strerror(result);
}

void EnableOnce(sd_event_source* source, bool enabled) {
  CHECK(sd_event_source_set_enabled(source, enabled ? SD_EVENT_ONESHOT : SD_EVENT_OFF) >= 0);
}

}  // namespace

std::shared_ptr<CurlMulti> CurlMulti::Shared() {
  static std::weak_ptr<CurlMulti> shared;
  std::shared_ptr<CurlMulti> multi = shared.lock();
  if (!multi) {
    multi = std::make_shared<CurlMulti>(base::MessageLoop::Current());
    shared = multi;
  }
  CHECK(multi->loop_ == base::MessageLoop::Current()) << "A transport of another loop is left";
  return multi;
}

CurlMulti::CurlMulti(base::MessageLoop* loop)
    : loop_(loop), sockets_(loop, [this](curl_socket_t fd, int ready) { Act(fd, ready); }) {
  InitLibcurl();
  sd_event_source* timer = nullptr;
  CHECK(sd_event_add_time(loop->event(), &timer, CLOCK_MONOTONIC, 0, kTimerAccuracyMicroseconds,
                          &CurlMulti::OnTimer, this) >= 0);
  timer_.reset(timer);
  EnableOnce(timer, false);
  sd_event_source* at_once = nullptr;
  CHECK(sd_event_add_defer(loop->event(), &at_once, &CurlMulti::OnDueAtOnce, this) >= 0);
  at_once_.reset(at_once);
  EnableOnce(at_once, false);
  multi_.reset(curl_multi_init());
  CHECK(multi_ != nullptr) << "Unable to create a libcurl multi handle";
  curl_multi_setopt(multi_.get(), CURLMOPT_SOCKETFUNCTION, &CurlMulti::OnWatch);
  curl_multi_setopt(multi_.get(), CURLMOPT_SOCKETDATA, this);
  curl_multi_setopt(multi_.get(), CURLMOPT_TIMERFUNCTION, &CurlMulti::OnSetTimer);
  curl_multi_setopt(multi_.get(), CURLMOPT_TIMERDATA, this);
  curl_multi_setopt(multi_.get(), CURLMOPT_MAXCONNECTS, kMaxIdleConnections);
  share_.reset(curl_share_init());
  CHECK(share_ != nullptr) << "Unable to create a libcurl share";
  CHECK(curl_share_setopt(share_.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION) == CURLSHE_OK);
}

CurlMulti::~CurlMulti() {
  // Closing the connections may have libcurl ask for sockets and a timer, to close them gracefully.
  // Nothing waits for that any more.
  curl_multi_setopt(multi_.get(), CURLMOPT_SOCKETFUNCTION,
                    static_cast<curl_socket_callback>(nullptr));
  curl_multi_setopt(multi_.get(), CURLMOPT_TIMERFUNCTION,
                    static_cast<curl_multi_timer_callback>(nullptr));
  // Before libcurl closes the sockets.
  sockets_.Clear();
}

CURLcode CurlMulti::Start(CURL* easy, const DoneCallback& done) {
  curl_easy_setopt(easy, CURLOPT_SHARE, share_.get());
  if (curl_multi_add_handle(multi_.get(), easy) != CURLM_OK) return CURLE_FAILED_INIT;
  running_.emplace(easy, done);
  return CURLE_OK;
}

void CurlMulti::Drop(CURL* easy) {
  if (running_.erase(easy) != 0) Remove(easy);
}

void CurlMulti::Remove(CURL* easy) {
  CHECK(curl_multi_remove_handle(multi_.get(), easy) == CURLM_OK);
  curl_easy_setopt(easy, CURLOPT_SHARE, nullptr);
}

int CurlMulti::OnWatch(CURL*, curl_socket_t fd, int what, void* multi, void*) {
  static_cast<CurlMulti*>(multi)->sockets_.Set(fd, what);
  return 0;
}

int CurlMulti::OnSetTimer(CURLM*, long timeout_milliseconds, void* multi) {
  auto* const self = static_cast<CurlMulti*>(multi);
  sd_event_source* const timer = self->timer_.get();
  // Transports that are destroyed after the loop has ended drop what is still outstanding.
  if (self->loop_->HasEnded()) return 0;
  if (timeout_milliseconds > 0) {
    const auto delay = static_cast<uint64_t>(timeout_milliseconds) * 1000;
    CHECK(sd_event_source_set_time_relative(timer, delay) >= 0);
  }
  EnableOnce(timer, timeout_milliseconds > 0);
  EnableOnce(self->at_once_.get(), timeout_milliseconds == 0);
  return 0;
}

int CurlMulti::OnTimer(sd_event_source* source, uint64_t, void* multi) {
  return OnDueAtOnce(source, multi);
}

int CurlMulti::OnDueAtOnce(sd_event_source*, void* multi) {
  static_cast<CurlMulti*>(multi)->Act(CURL_SOCKET_TIMEOUT, 0);
  return 0;
}

void CurlMulti::Act(curl_socket_t fd, int events) {
  // A callback may let go of the last transport.
  const std::shared_ptr<CurlMulti> keep_alive = shared_from_this();
  int running = 0;
  const CURLMcode result = curl_multi_socket_action(multi_.get(), fd, events, &running);
  CHECK(result == CURLM_OK) << curl_multi_strerror(result);
  int left = 0;
  while (const CURLMsg* const message = curl_multi_info_read(multi_.get(), &left)) {
    // Taken out first: removing the handle frees the message.
    CURL* const easy = message->easy_handle;
    const CURLcode outcome = message->data.result;
    Remove(easy);
    const DoneCallback done = std::move(running_.extract(easy).mapped());
    done.Run(outcome);
  }
}

}  // namespace kestle::http
