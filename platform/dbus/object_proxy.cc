#include "dbus/object_proxy.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "base/logging.h"
#include "base/message_loop.h"

namespace dbus {

namespace {

uint64_t TimeoutMicroseconds(int timeout_ms) {
  constexpr uint64_t kMicrosecondsPerMillisecond = 1000;
  if (timeout_ms == ObjectProxy::kTimeoutInfinite) return UINT64_MAX;
  if (timeout_ms == ObjectProxy::kTimeoutUseDefault) timeout_ms = ObjectProxy::kDefaultTimeout;
  // sd-bus takes zero for its own default.
  return static_cast<uint64_t>(std::max(timeout_ms, 1)) * kMicrosecondsPerMillisecond;
}

MessagePtr NewMethodCall(const ObjectProxy& proxy, const std::string& interface,
                         const std::string& method) {
  sd_bus_message* raw = nullptr;
  const int result = sd_bus_message_new_method_call(
      proxy.connection(), &raw, proxy.service_name().c_str(), proxy.object_path().value().c_str(),
      interface.c_str(), method.c_str());
  CHECK(result >= 0) << "Unable to make a call of " << interface << "." << method;
  return MessagePtr(raw);
}

// An error reply that contains `error`.
std::unique_ptr<Response> MakeErrorResponse(const MethodCall& call, const sd_bus_error& error) {
  // Only a sealed call can be replied to, and one that could not be sent may be unsealed.
  sd_bus_message_seal(call.raw(), /*cookie=*/1, /*timeout_usec=*/0);
  sd_bus_message* raw = nullptr;
  const int result = sd_bus_message_new_method_error(call.raw(), &raw, &error);
  CHECK(result >= 0) << "Unable to make an error reply";
  return std::make_unique<Response>(MessagePtr(raw));
}

}  // namespace

struct ObjectProxy::PendingCall {
  ObjectProxy* proxy;
  ResponseCallback callback;
  Slot slot;
};

struct ObjectProxy::SignalConnection {
  ObjectProxy* proxy;
  std::string interface;
  std::string signal;
  SignalCallback on_signal;
  OnConnectedCallback on_connected;
  Slot match;
};

MethodCall::MethodCall(const ObjectProxy& proxy, const std::string& interface,
                       const std::string& method)
    : Message(NewMethodCall(proxy, interface, method)) {}

ObjectProxy::ObjectProxy(sd_bus* connection, std::string service_name, ObjectPath path)
    : connection_(connection), service_name_(std::move(service_name)), path_(std::move(path)) {}

ObjectProxy::~ObjectProxy() = default;

std::unique_ptr<Response> ObjectProxy::CallMethodAndBlock(const MethodCall& call, int timeout_ms) {
  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_message* reply = nullptr;
  const int result =
      sd_bus_call(connection_, call.raw(), TimeoutMicroseconds(timeout_ms), &error, &reply);
  if (result >= 0) return std::make_unique<Response>(MessagePtr(reply));
  std::unique_ptr<Response> response;
  if (sd_bus_is_open(connection_) > 0) response = MakeErrorResponse(call, error);
  sd_bus_error_free(&error);
  return response;
}

void ObjectProxy::CallMethod(const MethodCall& call, int timeout_ms,
                             const ResponseCallback& callback) {
  auto pending = std::make_unique<PendingCall>(PendingCall{this, callback, nullptr});
  sd_bus_slot* slot = nullptr;
  const int result = sd_bus_call_async(connection_, &slot, call.raw(), &ObjectProxy::OnReply,
                                       pending.get(), TimeoutMicroseconds(timeout_ms));
  if (result >= 0) {
    pending->slot.reset(slot);
    pending_calls_.push_back(std::move(pending));
    return;
  }
  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_error_set_errno(&error, result);
  const std::shared_ptr<Response> response = MakeErrorResponse(call, error);
  sd_bus_error_free(&error);
  base::MessageLoop::Current()->PostTask(
      [alive = weak_ptr_factory_.GetWeakPtr(), callback, response] {
        if (alive.get() && !callback.is_null()) callback.Run(*response);
      });
}

int ObjectProxy::OnReply(sd_bus_message* raw, void* pending, sd_bus_error* /*error*/) {
  auto* const call = static_cast<PendingCall*>(pending);
  const ResponseCallback callback = std::move(call->callback);
  call->proxy->pending_calls_.remove_if(
      [call](const std::unique_ptr<PendingCall>& other) { return other.get() == call; });
  if (!callback.is_null()) callback.Run(Response(Reference(raw)));
  // sd-bus must not pass it on to filters.
  return 1;
}

bool ObjectProxy::SendOneWay(const MethodCall& call) {
  if (sd_bus_message_set_expect_reply(call.raw(), 0) < 0) return false;
  return sd_bus_send(connection_, call.raw(), nullptr) >= 0;
}

void ObjectProxy::SetOneWayErrorCallback(const ResponseCallback& callback) {
  on_one_way_error_ = callback;
  sd_bus_slot* slot = nullptr;
  sd_bus_add_filter(connection_, &slot, &ObjectProxy::OnUnclaimed, this);
  unclaimed_filter_.reset(slot);
}

// The replies that no pending call expects.
int ObjectProxy::OnUnclaimed(sd_bus_message* raw, void* proxy, sd_bus_error* /*error*/) {
  if (sd_bus_message_is_method_error(raw, nullptr) > 0)
    static_cast<ObjectProxy*>(proxy)->on_one_way_error_.Run(Response(Reference(raw)));
  return 0;
}

void ObjectProxy::ConnectToSignal(const std::string& interface, const std::string& signal,
                                  const SignalCallback& on_signal,
                                  const OnConnectedCallback& on_connected) {
  if (!name_owner_)
    name_owner_ = std::make_unique<NameOwner>(connection_, service_name_, base::Callback<void()>());
  connections_.push_back(std::make_unique<SignalConnection>(
      SignalConnection{this, interface, signal, on_signal, on_connected, nullptr}));
  SignalConnection* const connection = connections_.back().get();
  sd_bus_slot* slot = nullptr;
  const int result = sd_bus_match_signal_async(
      connection_, &slot, service_name_.c_str(), path_.value().c_str(), interface.c_str(),
      signal.c_str(), &ObjectProxy::OnSignal, &ObjectProxy::OnMatchInstalled, connection);
  connection->match.reset(slot);
  if (result >= 0 || on_connected.is_null()) return;
  base::MessageLoop::Current()->PostTask(
      [alive = weak_ptr_factory_.GetWeakPtr(), on_connected, interface, signal] {
        if (alive.get()) on_connected.Run(interface, signal, false);
      });
}

int ObjectProxy::OnSignal(sd_bus_message* raw, void* connection, sd_bus_error* /*error*/) {
  const auto* const self = static_cast<SignalConnection*>(connection);
  const Signal signal(Reference(raw));
  if (self->proxy->name_owner_->Sent(signal) && !self->on_signal.is_null())
    self->on_signal.Run(signal);
  return 0;
}

int ObjectProxy::OnMatchInstalled(sd_bus_message* raw, void* connection, sd_bus_error* /*error*/) {
  const auto* const self = static_cast<SignalConnection*>(connection);
  const bool success = sd_bus_message_is_method_error(raw, nullptr) == 0;
  if (!self->on_connected.is_null()) self->on_connected.Run(self->interface, self->signal, success);
  return 0;
}

}  // namespace dbus
