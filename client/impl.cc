#include "client/impl.h"

#include <algorithm>
#include <climits>
#include <string>
#include <string_view>
#include <utility>

#include "dbus/bus.h"

namespace pelmor {

namespace {

constexpr char kDisconnected[] = "org.freedesktop.DBus.Error.Disconnected";
constexpr char kNoServer[] = "org.freedesktop.DBus.Error.NoServer";
constexpr char kNoReply[] = "org.freedesktop.DBus.Error.NoReply";
// The prefix of errors of a bus that could not start the service.
constexpr std::string_view kSpawn = "org.freedesktop.DBus.Error.Spawn.";

constexpr std::pair<std::string_view, StatusCode> kCodes[] = {
    {"org.freedesktop.DBus.Error.AccessDenied", StatusCode::kRefused},
    {"org.freedesktop.DBus.Error.NameHasNoOwner", StatusCode::kNoDaemon},
    // Sent by the bus when the daemon disconnects.
    {kNoReply, StatusCode::kNoDaemon},
    {"org.freedesktop.DBus.Error.ServiceUnknown", StatusCode::kNoDaemon},
    {"org.freedesktop.DBus.Error.Timeout", StatusCode::kTimedOut},
};

StatusCode CodeOf(std::string_view error_name) {
  if (error_name.substr(0, kSpawn.size()) == kSpawn) return StatusCode::kNoDaemon;
  for (const auto& [name, code] : kCodes)
    if (error_name == name) return code;
  return StatusCode::kFailed;
}

Timeout InRange(Timeout timeout) { return std::clamp(timeout, Timeout(1), Timeout(INT_MAX)); }

Status ConnectionLost() {
  return Status(StatusCode::kNotConnected, kDisconnected,
                "The connection to the system bus was lost");
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

Client::Impl::Impl() = default;
Client::Impl::~Impl() = default;

Status Client::Impl::Connect() {
  const Entry entry(this);
  return EnsureConnected();
}

Status Client::Impl::Block(const Status& checked, Timeout timeout, const BlockingCall& call) {
  if (!checked.ok()) return checked;
  const Entry entry(this);
  Status connected = EnsureConnected();
  if (!connected.ok()) return connected;
  const Timeout allowed = InRange(timeout);
  const Clock::time_point deadline = Clock::now() + allowed;
  kestle::ErrorPtr error;
  if (call(&session_->manager, &error, static_cast<int>(allowed.count()))) return Status();
  return StatusOf(error.get(), deadline);
}

void Client::Impl::Start(const Status& checked, Timeout timeout, const AsyncCall& call,
                         Callback done) {
  const Entry entry(this);
  Status ready = checked.ok() ? EnsureConnected() : checked;
  if (!ready.ok()) {
    finished_.push_back({std::move(done), std::move(ready)});
    return;
  }
  const Timeout allowed = InRange(timeout);
  const uint64_t number = ++last_call_;
  pending_[number] = {std::move(done), Clock::now() + allowed};
  const auto on_success = [this, number] {
    Finish(number, [](const Pending&) { return Status(); });
  };
  const auto on_error = [this, number](const kestle::Error* error) {
    Finish(number, [&](const Pending& pending) { return StatusOf(error, pending.deadline); });
  };
  call(&session_->manager, on_success, on_error, static_cast<int>(allowed.count()));
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
    if (one.done) one.done(one.status);
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
  return Status();
}

void Client::Impl::Pump() {
  loop_.Dispatch();
  if (!session_ || session_->bus->IsConnected()) return;
  session_.reset();
  for (auto& [number, pending] : pending_)
    finished_.push_back({std::move(pending.done), ConnectionLost()});
  pending_.clear();
}

Status Client::Impl::StatusOf(const kestle::Error* error, Clock::time_point deadline) const {
  if (!session_->bus->IsConnected()) return ConnectionLost();
  StatusCode code = CodeOf(error->GetCode());
  // The bus library reports a timeout under this name, too.
  if (error->GetCode() == kNoReply && Clock::now() >= deadline) code = StatusCode::kTimedOut;
  return Status(code, error->GetCode(), error->GetMessage());
}

void Client::Impl::Finish(uint64_t call, const std::function<Status(const Pending&)>& status) {
  const auto pending = pending_.extract(call);
  finished_.push_back({pending.mapped().done, status(pending.mapped())});
}

}  // namespace pelmor
