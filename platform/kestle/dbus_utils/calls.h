// Method calls and signals with C++ values for arguments.
//
// Errors are entries of the domain "dbus" whose code is the D-Bus error name. Blocking calls block
// the message loop's thread until the reply or the timeout.
#pragma once

#include <memory>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

#include "base/callback.h"
#include "base/logging.h"
#include "dbus/message.h"
#include "dbus/object_proxy.h"
#include "kestle/dbus_utils/value_codec.h"
#include "kestle/error.h"

namespace kestle::dbus_utils {

inline constexpr char kDBusErrorDomain[] = "dbus";
inline constexpr char kInvalidArgs[] = "org.freedesktop.DBus.Error.InvalidArgs";
inline constexpr char kFailed[] = "org.freedesktop.DBus.Error.Failed";

using ErrorCallback = base::Callback<void(const Error*)>;

// The parts of the templates below that do not depend on the types.
namespace internal {

// Null, with an entry in `error`, unless the reply is a method return.
[[nodiscard]] std::unique_ptr<dbus::Response> SendAndBlock(dbus::ObjectProxy* proxy,
                                                           const dbus::MethodCall& call,
                                                           int timeout_ms, ErrorPtr* error);
void AddErrorReply(const dbus::Response& response, ErrorPtr* error);
// Each returns false, with an entry in `error`, on that fault.
[[nodiscard]] bool CheckMoreArguments(dbus::MessageReader* reader, ErrorPtr* error);
[[nodiscard]] bool CheckNoMoreArguments(dbus::MessageReader* reader, ErrorPtr* error);
[[nodiscard]] bool CheckTypeMatched(bool matched, ErrorPtr* error);

}  // namespace internal

// A call with these arguments, not sent yet.
template <typename... Args>
dbus::MethodCall MakeCall(const dbus::ObjectProxy& proxy, const std::string& interface,
                          const std::string& method, const Args&... args) {
  dbus::MethodCall call(proxy, interface, method);
  [[maybe_unused]] dbus::MessageWriter writer(&call);
  (DBusType<Args>::Write(&writer, args), ...);
  return call;
}

// Reads all the arguments from the first on. False, with an entry in `error` for the first fault
// and unchanged outputs, if they do not match.
template <typename... Outs>
[[nodiscard]] bool ReadArguments(dbus::MessageReader* reader, ErrorPtr* error, Outs*... outs) {
  std::tuple<Outs...> values;
  const auto read = [&](auto* value) {
    using Value = std::remove_pointer_t<decltype(value)>;
    return internal::CheckMoreArguments(reader, error) &&
           internal::CheckTypeMatched(DBusType<Value>::Read(reader, value), error);
  };
  const bool all_read = std::apply([&](auto&... value) { return (read(&value) && ...); }, values);
  if (!all_read || !internal::CheckNoMoreArguments(reader, error)) return false;
  std::apply([&](auto&... value) { ((*outs = std::move(value)), ...); }, values);
  return true;
}

// The same from a whole message.
template <typename... Outs>
[[nodiscard]] bool ExtractMethodCallResults(dbus::Message* message, ErrorPtr* error,
                                            Outs*... outs) {
  CHECK(message) << "Unable to extract parameters from a NULL message.";
  dbus::MessageReader reader(message);
  return ReadArguments(&reader, error, outs...);
}

// The reply if it is a method return, else null, with an entry in `error`.
template <typename... Args>
[[nodiscard]] std::unique_ptr<dbus::Response> CallMethodAndBlockWithTimeout(
    int timeout_ms, dbus::ObjectProxy* proxy, const std::string& interface,
    const std::string& method, ErrorPtr* error, const Args&... args) {
  return internal::SendAndBlock(proxy, MakeCall(*proxy, interface, method, args...), timeout_ms,
                                error);
}

template <typename... Args>
[[nodiscard]] std::unique_ptr<dbus::Response> CallMethodAndBlock(dbus::ObjectProxy* proxy,
                                                                 const std::string& interface,
                                                                 const std::string& method,
                                                                 ErrorPtr* error,
                                                                 const Args&... args) {
  return CallMethodAndBlockWithTimeout(dbus::ObjectProxy::kTimeoutUseDefault, proxy, interface,
                                       method, error, args...);
}

// Runs exactly one of the callbacks (either may be null) when the reply arrives, and none after the
// object proxy is destroyed.
template <typename... Outs, typename... Args>
void CallMethod(int timeout_ms, dbus::ObjectProxy* proxy, const std::string& interface,
                const std::string& method, const base::Callback<void(Outs...)>& on_success,
                const ErrorCallback& on_error, const Args&... args) {
  const auto on_reply = [=](const dbus::Response& response) {
    ErrorPtr error;
    std::tuple<std::remove_cvref_t<Outs>...> outs;
    dbus::MessageReader reader(&response);
    const auto read = [&](auto&... out) { return ReadArguments(&reader, &error, &out...); };
    if (response.IsError()) {
      internal::AddErrorReply(response, &error);
    } else if (std::apply(read, outs)) {
      if (on_success.is_null()) return;
      return std::apply([&](auto&... out) { on_success.Run(std::move(out)...); }, outs);
    }
    if (!on_error.is_null()) on_error.Run(error.get());
  };
  proxy->CallMethod(MakeCall(*proxy, interface, method, args...), timeout_ms, on_reply);
}

// Drops signals whose arguments do not match the handler.
template <typename... Args>
void ConnectToSignal(dbus::ObjectProxy* proxy, const std::string& interface,
                     const std::string& signal, const base::Callback<void(Args...)>& handler,
                     const dbus::ObjectProxy::OnConnectedCallback& on_connected) {
  const auto on_signal = [handler](const dbus::Signal& message) {
    std::tuple<std::remove_cvref_t<Args>...> values;
    dbus::MessageReader reader(&message);
    const auto read = [&](auto&... value) { return ReadArguments(&reader, nullptr, &value...); };
    if (!std::apply(read, values)) return;
    std::apply([&](auto&... value) { handler.Run(std::move(value)...); }, values);
  };
  proxy->ConnectToSignal(interface, signal, on_signal, on_connected);
}

}  // namespace kestle::dbus_utils
