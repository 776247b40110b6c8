#include "kestle/http/curl_multi.h"

#include <systemd/sd-event.h>

#include <cstdlib>
#include <cstring>
#include <utility>

#include "base/logging.h"
#include "base/memory.h"
#include "base/secret.h"

namespace kestle::http {

namespace {

// Idle connections that are kept open: one or two for each of the few servers.
constexpr long kMaxIdleConnections = 4;
// How late libcurl's timer may fire, so that the kernel can coalesce wake-ups.
constexpr uint64_t kTimerAccuracyMicroseconds = 1000;
// More reads than the largest response needs.
constexpr int kMaxLateReads = 1000;

// CURLMOPT_QUICK_EXIT by its number in libcurl's ABI, since the library may be newer than the
// headers. The versions that wait for their resolver's threads support it; others reject it.
constexpr auto kQuickExit = static_cast<CURLMoption>(CURLOPTTYPE_LONG + 21);

void InitLibcurl() {
  // libcurl copies the headers and bodies that it sends, which contain secrets.
  static const CURLcode result = curl_global_init_mem(
      CURL_GLOBAL_DEFAULT, &malloc, &base::FreeWiped, &base::ReallocateWiped, &strdup, &calloc);
  CHECK(result == CURLE_OK) << "Unable to initialise libcurl: " << curl_easy_strerror(result);
}

void EnableOnce(sd_event_source* source, bool enabled) {
  CHECK(sd_event_source_set_enabled(source, enabled ? SD_EVENT_ONESHOT : SD_EVENT_OFF) >= 0);
}

}  // namespace

std::shared_ptr<CurrentMulti> CurrentMulti::Shared() {
  static std::weak_ptr<CurrentMulti> shared;
  std::shared_ptr<CurrentMulti> current = shared.lock();
  if (!current) {
    current = std::make_shared<CurrentMulti>(base::MessageLoop::Current());
    shared = current;
  }
  CHECK(current->loop_ == base::MessageLoop::Current()) << "A transport of another loop is left";
  return current;
}

CurrentMulti::CurrentMulti(base::MessageLoop* loop) : loop_(loop) { InitLibcurl(); }

const std::shared_ptr<CurlMulti>& CurrentMulti::Get() {
  if (!multi_ || multi_->cas()->IsOutdated()) multi_ = std::make_shared<CurlMulti>(loop_);
  return multi_;
}

CurlMulti::CurlMulti(base::MessageLoop* loop)
    : loop_(loop), sockets_(loop, [this](curl_socket_t fd, int ready) { Act(fd, ready); }) {
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
  // An unresponsive name server must not delay the end of the process.
  curl_multi_setopt(multi_.get(), kQuickExit, 1L);
  share_.reset(curl_share_init());
  CHECK(share_ != nullptr) << "Unable to create a libcurl share";
  CHECK(curl_share_setopt(share_.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION) == CURLSHE_OK);
}

CurlMulti::~CurlMulti() {
  // To close connections gracefully, libcurl may ask to watch sockets and to set a timer. Nothing
  // handles their events any more.
  curl_multi_setopt(multi_.get(), CURLMOPT_SOCKETFUNCTION,
                    static_cast<curl_socket_callback>(nullptr));
  curl_multi_setopt(multi_.get(), CURLMOPT_TIMERFUNCTION,
                    static_cast<curl_multi_timer_callback>(nullptr));
  // Before libcurl closes the sockets.
  sockets_.Clear();
}

bool CurlMulti::Start(CURL* easy, base::TimeDelta timeout, const DoneCallback& done) {
  curl_easy_setopt(easy, CURLOPT_SHARE, share_.get());
  connections_.Attach(easy);
  if (curl_multi_add_handle(multi_.get(), easy) != CURLM_OK) return false;
  running_.emplace(easy, Running{++last_id_, timeout, done, nullptr});
  starting_ = true;
  return true;
}

void CurlMulti::Drop(CURL* easy) {
  if (running_.erase(easy) != 0) Remove(easy);
}

void CurlMulti::Remove(CURL* easy) {
  CHECK(curl_multi_remove_handle(multi_.get(), easy) == CURLM_OK);
  curl_easy_setopt(easy, CURLOPT_SHARE, nullptr);
  connections_.NoteEnd(easy);
}

int CurlMulti::OnWatch(CURL* easy, curl_socket_t fd, int what, void* multi, void*) {
  auto* const self = static_cast<CurlMulti*>(multi);
  if (what != CURL_POLL_REMOVE) self->connections_.NoteUse(fd, easy);
  self->sockets_.Set(fd, what);
  return 0;
}

int CurlMulti::OnSetTimer(CURLM*, long timeout_milliseconds, void* multi) {
  auto* const self = static_cast<CurlMulti*>(multi);
  sd_event_source* const timer = self->timer_.get();
  // Transports may be destroyed, and drop their requests, after the loop has ended.
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
  // A callback may destroy the last transport.
  const std::shared_ptr<CurlMulti> keep_alive = shared_from_this();
  if (starting_) StartDeadlines();
  // As late as possible: libcurl may now choose a connection for a request.
  connections_.ShutDownUnusedWithInput();
  int running = 0;
  const CURLMcode result = curl_multi_socket_action(multi_.get(), fd, events, &running);
  CHECK(result == CURLM_OK) << curl_multi_strerror(result);
  int left = 0;
  // Removing the handle frees the message.
  while (const CURLMsg* const message = curl_multi_info_read(multi_.get(), &left))
    End(message->easy_handle, message->data.result);
}

void CurlMulti::End(CURL* easy, CURLcode result) {
  Remove(easy);
  const DoneCallback done = std::move(running_.extract(easy).mapped().done);
  done.Run(result);
  // The first connection initialises the TLS library, and leaves a sixth of the heap free.
  if (std::exchange(is_first_, false)) base::ReleaseFreeMemory();
}

void CurlMulti::StartDeadlines() {
  starting_ = false;
  for (auto& [easy, running] : running_) {
    if (running.deadline || running.timeout <= base::TimeDelta()) continue;
    sd_event_source* deadline = nullptr;
    const auto delay = static_cast<uint64_t>(running.timeout.InMicroseconds());
    CHECK(sd_event_add_time_relative(loop_->event(), &deadline, CLOCK_MONOTONIC, delay,
                                     kTimerAccuracyMicroseconds, &CurlMulti::OnDeadline,
                                     this) >= 0);
    running.deadline.reset(deadline);
  }
}

int CurlMulti::OnDeadline(sd_event_source*, uint64_t, void* multi) {
  static_cast<CurlMulti*>(multi)->EndAllLate();
  return 0;
}

void CurlMulti::EndAllLate() {
  const std::shared_ptr<CurlMulti> keep_alive = shared_from_this();
  uint64_t now = 0;
  CHECK(sd_event_now(loop_->event(), CLOCK_MONOTONIC, &now) >= 0);
  // In the order of their start, which sd-event does not keep for timers that are due together.
  std::map<uint64_t, CURL*> late;
  for (const auto& [easy, running] : running_) {
    uint64_t due = 0;
    if (running.deadline && sd_event_source_get_time(running.deadline.get(), &due) >= 0 &&
        due <= now)
      late.emplace(running.id, easy);
  }
  for (const auto& [id, easy] : late) EndLate(easy, id);
}

void CurlMulti::EndLate(CURL* easy, uint64_t id) {
  for (int reads = 0; reads < kMaxLateReads && Runs(easy, id) && ReadArrived(easy); ++reads) {
  }
  if (Runs(easy, id)) End(easy, CURLE_OPERATION_TIMEDOUT);
}

bool CurlMulti::Runs(CURL* easy, uint64_t id) const {
  const auto running = running_.find(easy);
  return running != running_.end() && running->second.id == id;
}

bool CurlMulti::ReadArrived(CURL* easy) {
  const curl_socket_t fd = connections_.FindInput(easy);
  if (fd != CURL_SOCKET_BAD) {
    Act(fd, CURL_CSELECT_IN);
    return true;
  }
  // libcurl may still have to process what it has already read.
  int is_due = SD_EVENT_OFF;
  CHECK(sd_event_source_get_enabled(at_once_.get(), &is_due) >= 0);
  if (is_due == SD_EVENT_OFF) return false;
  EnableOnce(at_once_.get(), false);
  Act(CURL_SOCKET_TIMEOUT, 0);
  return true;
}

}  // namespace kestle::http
