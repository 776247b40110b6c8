// Calls an exported object of the process under test as another process would: from a connection
// and a thread of its own, while the current message loop turns.
#pragma once

#include <systemd/sd-bus.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace kestle::dbus_utils {

struct RemoteCall {
  std::string destination;
  std::string path;
  // Left out of the message when empty.
  std::string interface;
  std::string method;
  // Appends the arguments; null for a message without a body.
  std::function<void(sd_bus_message*)> arguments = {};
};

struct RemoteReply {
  // Of an error reply; both empty in a method return.
  std::string error_name;
  std::string error_message;
  // Of a method return; see `dbus/testing/describe.h`.
  std::vector<std::string> arguments;

  bool operator==(const RemoteReply&) const = default;
};

inline RemoteReply ErrorReply(const std::string& name, const std::string& message) {
  return {name, message, {}};
}

// The arguments as sd_bus_message_append takes them.
template <typename... Args>
std::function<void(sd_bus_message*)> Append(const char* types, Args... args) {
  return [=](sd_bus_message* message) { sd_bus_message_append(message, types, args...); };
}

// Fails the test when no reply comes.
RemoteReply CallFromOutside(const RemoteCall& call);
// Sends the call with the flag that no reply is expected, and waits until it has been handled.
// Returns how many replies came all the same.
int CallWithoutReplyFromOutside(const RemoteCall& call);

}  // namespace kestle::dbus_utils
