// Calls an exported object of the test process as another process would: from a thread and a
// separate connection, while the current message loop runs.
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
  // Omitted from the message if empty.
  std::string interface;
  std::string method;
  // Appends the arguments; null for a message without a body.
  std::function<void(sd_bus_message*)> arguments = {};
};

struct RemoteReply {
  // Both empty in a method return.
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

// Fails the test if no reply arrives.
RemoteReply CallFromOutside(const RemoteCall& call);
// Sends the call with the flag that no reply is expected, and waits until it has been handled.
// Returns the number of replies.
int CallWithoutReplyFromOutside(const RemoteCall& call);

}  // namespace kestle::dbus_utils
