#include "client/impl.h"

#include <algorithm>
#include <climits>
#include <string>
#include <string_view>
#include <utility>

#include "dbus/bus.h"

namespace pelmor {

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kDisconnected[] = "org.freedesktop.DBus.Error.Disconnected";
constexpr char kLimitsExceeded[] = "org.freedesktop.DBus.Error.LimitsExceeded";
constexpr char kNoServer[] = "org.freedesktop.DBus.Error.NoServer";
constexpr char kTimeout[] = "org.freedesktop.DBus.Error.Timeout";
constexpr char kIntrospectable[] = "org.freedesktop.DBus.Introspectable";
// The prefix of errors of a bus that could not start the service.
constexpr std::string_view kSpawn = "org.freedesktop.DBus.Error.Spawn.";
// The sender of the bus's own replies.
constexpr char kBus[] = "org.freedesktop.DBus";

constexpr std::pair<std::string_view, StatusCode> kCodes[] = {
    {"org.freedesktop.DBus.Error.AccessDenied", StatusCode::kRefused},
    {"org.freedesktop.DBus.Error.NameHasNoOwner", StatusCode::kNoDaemon},
    // Sent by the bus when the daemon disconnects.
    {"org.freedesktop.DBus.Error.NoReply", StatusCode::kNoDaemon},
    {"org.freedesktop.DBus.Error.ServiceUnknown", StatusCode::kNoDaemon},
    {kTimeout, StatusCode::kTimedOut},
};

StatusCode CodeOf(std::string_view error_name) {
  if (error_name.substr(0, kSpawn.size()) == kSpawn) return StatusCode::kNoDaemon;
  for (const auto& [name, code] : kCodes)
    if (error_name == name) return code;
  return StatusCode::kFailed;
}

Clock::time_point DeadlineOf(Timeout timeout) {
  return Clock::now() + std::clamp(timeout, Timeout(1), Timeout(INT_MAX));
}

base::TimeDelta TimeUntil(Clock::time_point when) {
  const auto left = std::chrono::ceil<std::chrono::microseconds>(when - Clock::now());
  return base::TimeDelta::FromMicroseconds(std::max<int64_t>(left.count(), 0));
}

Status ConnectionLost() {
  return Status(StatusCode::kNotConnected, kDisconnected,
                "The connection to the system bus was lost");
}

Status Late(StatusCode code) {
  return code == StatusCode::kBusy
             ? Status(code, kLimitsExceeded, "The daemon is behind: the queue is full")
             : Status(code, kTimeout, "The daemon did not reply in time");
}

}  // namespace

struct Client::Impl::Session {
  explicit Session(const scoped_refptr<dbus::Bus>& connected)
      : bus(connected), manager(connected) {}

  const scoped_refptr<dbus::Bus> bus;
  ManagerProxy manager;
};

// Makes the client's event loop the thread's current one while it lives, and `PollFd` readable
// afterwards if callbacks are due.
class Client::Impl::Entry {
 public:
  explicit Entry(Impl* impl) : impl_(impl), scope_(&impl->loop_) {}
  ~Entry() { impl_->loop_.SetDue(!impl_->finished_.empty()); }
  Entry(const Entry&) = delete;
  Entry& operator=(const Entry&) = delete;

 private:
  Impl* const impl_;
  const base::HostedLoop::Scope scope_;
};

Client::Impl::Impl(Timeout queue_wait) : queue_wait_(queue_wait) {}

Client::Impl::~Impl() {
  for (const Queued& one : queue_)
    // The reason would have no receiver.
    (void)session_->manager.GetObjectProxy()->SendOneWay(one.message);
}

Status Client::Impl::Connect() {
  const Entry entry(this);
  return EnsureConnected();
}

Status Client::Impl::Block(const Record& record, Timeout timeout) {
  if (!record.checked.ok()) return record.checked;
  const Entry entry(this);
  const Clock::time_point deadline = DeadlineOf(timeout);
  Status ready = Prepare(deadline, StatusCode::kTimedOut);
  if (!ready.ok()) return ready;
  return Await({record.make(session_->manager), record.bytes, 0}, deadline);
}

Status Client::Impl::Start(const Record& record, Timeout timeout, Callback done) {
  if (!record.checked.ok()) return record.checked;
  if (!done && SendAtOnce(record)) return Status();
  const Entry entry(this);
  const Clock::time_point deadline = DeadlineOf(timeout);
  Status ready = Prepare(Clock::now() + queue_wait_, StatusCode::kBusy);
  if (!ready.ok()) return ready;
  const uint64_t call = done ? AddPending(std::move(done), nullptr, deadline) : 0;
  Enqueue({record.make(session_->manager), record.bytes, call});
  return Status();
}

Status Client::Impl::Flush(Timeout timeout) {
  const Entry entry(this);
  Pump();
  Status processed;
  if (!window_.IsEmpty() || !queue_.empty()) {
    // The bus policy allows reporters this call of the daemon, whose reply follows the processing
    // of all that was sent before.
    dbus::ObjectProxy* const proxy = session_->manager.GetObjectProxy();
    processed =
        Await({dbus::MethodCall(*proxy, kIntrospectable, "Introspect"), 0, 0}, DeadlineOf(timeout));
  }
  if (processed.code() == StatusCode::kTimedOut) return processed;
  if (std::exchange(reported_losses_, window_.lost()) != window_.lost()) return window_.last_loss();
  // Without daemon or bus, no record is on its way any more.
  const bool is_gone =
      processed.code() == StatusCode::kNoDaemon || processed.code() == StatusCode::kNotConnected;
  return is_gone ? Status() : processed;
}

void Client::Impl::Process() {
  std::deque<Finished> finished;
  {
    const Entry entry(this);
    Pump();
    finished.swap(finished_);
  }
  for (const Finished& one : finished) {
    if (closed_) return;
    one.done(one.status);
  }
}

Status Client::Impl::EnsureConnected() {
  Pump();
  if (session_) return Status();
  kestle::ErrorPtr error;
  const scoped_refptr<dbus::Bus> bus = dbus::Bus::ConnectToSystemBus(&error);
  if (!bus)
    return Status(StatusCode::kNotConnected, kNoServer,
                  "No connection to the system bus: " + error->GetMessage());
  session_ = std::make_unique<Session>(bus);
  session_->manager.GetObjectProxy()->SetOneWayErrorCallback([this](const dbus::Response& error) {
    window_.OnRejected(error.GetReplySerial(), StatusOf(error));
  });
  return Status();
}

Status Client::Impl::Prepare(Clock::time_point deadline, StatusCode full) {
  for (;;) {
    Status connected = EnsureConnected();
    if (!connected.ok()) return connected;
    if (queue_.size() < kMaxQueuedRecords && queued_bytes_ < kMaxQueuedBytes) return Status();
    if (Clock::now() >= deadline) return Late(full);
    loop_.Wait(TimeUntil(deadline));
  }
}

bool Client::Impl::SendAtOnce(const Record& record) {
  if (!session_ || !window_.HasRoom() || window_.EndsWith(record.bytes) ||
      session_->bus->HasUnsentMessages())
    return false;
  const dbus::MethodCall message = record.make(session_->manager);
  if (!session_->manager.GetObjectProxy()->SendOneWay(message)) return false;
  window_.SentOneWay(message.GetSerial(), record.bytes);
  // The loop sends the rest.
  if (session_->bus->HasUnsentMessages()) const Entry entry(this);
  return true;
}

void Client::Impl::Enqueue(Queued message) {
  queued_bytes_ += message.bytes;
  queue_.push_back(std::move(message));
  SendQueued();
}

Status Client::Impl::Await(Queued message, Clock::time_point deadline) {
  std::optional<Status> result;
  message.call = AddPending(nullptr, &result, deadline);
  Enqueue(std::move(message));
  while (!result) {
    loop_.Wait(TimeUntil(deadline));
    Pump();
  }
  return *std::move(result);
}

uint64_t Client::Impl::AddPending(Callback done, std::optional<Status>* result,
                                  Clock::time_point deadline) {
  pending_[++last_call_] = {std::move(done), result, deadline};
  if (!timer_due_ || deadline < *timer_due_) SetTimer();
  return last_call_;
}

void Client::Impl::Pump() {
  loop_.Dispatch();
  if (session_ && !session_->bus->IsConnected()) Disconnect();
  // After the replies that have arrived.
  if (timer_due_ && *timer_due_ <= Clock::now()) ExpirePending();
  SendQueued();
}

void Client::Impl::SendQueued() {
  while (!queue_.empty() && window_.HasRoom() && Send(queue_.front())) {
    queued_bytes_ -= queue_.front().bytes;
    queue_.pop_front();
  }
}

// False if the connection is lost: the next `Pump` handles that.
bool Client::Impl::Send(const Queued& one) {
  dbus::ObjectProxy* const proxy = session_->manager.GetObjectProxy();
  const bool one_way = one.call == 0;
  if (one_way && !window_.EndsWith(one.bytes)) {
    if (!proxy->SendOneWay(one.message)) return false;
    window_.SentOneWay(one.message.GetSerial(), one.bytes);
    return true;
  }
  proxy->CallMethod(
      one.message, dbus::ObjectProxy::kTimeoutInfinite,
      [this, call = one.call](const dbus::Response& response) { OnReply(call, response); });
  if (!session_->bus->IsConnected()) return false;
  window_.SentWithReply(one.message.GetSerial(), one.bytes,
                        one_way ? Window::Kind::kOneWay : Window::Kind::kWithCallback);
  return true;
}

// After a timeout, too: until its reply, the bus counts a call as pending.
void Client::Impl::OnReply(uint64_t call, const dbus::Response& response) {
  const Status status = StatusOf(response);
  const std::string sender = response.GetSender();
  window_.OnReply(response.GetReplySerial(), sender == kBus ? "" : sender, status);
  if (pending_.contains(call)) Finish(call, status);
}

void Client::Impl::Disconnect() {
  const auto one_way = std::count_if(queue_.begin(), queue_.end(),
                                     [](const Queued& queued) { return queued.call == 0; });
  window_.OnDisconnected(static_cast<size_t>(one_way), ConnectionLost());
  queue_.clear();
  queued_bytes_ = 0;
  session_.reset();
  while (!pending_.empty()) Finish(pending_.begin()->first, ConnectionLost());
}

void Client::Impl::ExpirePending() {
  const Clock::time_point now = Clock::now();
  for (auto next = pending_.begin(); next != pending_.end();) {
    const uint64_t call = next->first;
    const Clock::time_point deadline = (next++)->second.deadline;
    if (deadline > now) continue;
    const auto queued = std::find_if(queue_.begin(), queue_.end(),
                                     [call](const Queued& one) { return one.call == call; });
    if (queued != queue_.end()) {
      queued_bytes_ -= queued->bytes;
      queue_.erase(queued);
    }
    Finish(call, Late(StatusCode::kTimedOut));
  }
  SetTimer();
}

void Client::Impl::SetTimer() {
  const auto first = std::min_element(
      pending_.begin(), pending_.end(),
      [](const auto& a, const auto& b) { return a.second.deadline < b.second.deadline; });
  timer_.Stop();
  timer_due_.reset();
  if (first == pending_.end()) return;
  timer_due_ = first->second.deadline;
  // The tick only ends the loop's wait: `Pump` does the work.
  timer_.Start("pelmor::Client", TimeUntil(*timer_due_), [] {});
}

void Client::Impl::Finish(uint64_t call, const Status& status) {
  Pending pending = std::move(pending_.extract(call).mapped());
  if (pending.result)
    *pending.result = status;
  else
    finished_.push_back({std::move(pending.done), status});
}

Status Client::Impl::StatusOf(const dbus::Response& response) const {
  if (!session_->bus->IsConnected()) return ConnectionLost();
  if (!response.IsError()) return Status();
  const std::string name = response.GetErrorName();
  return Status(CodeOf(name), name, response.GetErrorMessage());
}

}  // namespace pelmor
