#include "kestle/dbus_utils/testing/remote_call.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>

#include "base/testing/run_until.h"
#include "dbus/bus.h"
#include "dbus/message.h"
#include "dbus/testing/describe.h"

namespace kestle::dbus_utils {

namespace {

constexpr uint64_t kReplyTimeoutMicroseconds = 15'000'000;

dbus::Connection Connect() {
  sd_bus* connection = nullptr;
  EXPECT_GE(sd_bus_open_system(&connection), 0);
  return dbus::Connection(connection);
}

dbus::Message MakeMessage(const dbus::Connection& connection, const RemoteCall& call) {
  sd_bus_message* message = nullptr;
  const char* const interface = call.interface.empty() ? nullptr : call.interface.c_str();
  EXPECT_GE(sd_bus_message_new_method_call(connection.get(), &message, call.destination.c_str(),
                                           call.path.c_str(), interface, call.method.c_str()),
            0);
  if (call.arguments) call.arguments(message);
  return dbus::Message(dbus::MessagePtr(message));
}

RemoteReply Call(const RemoteCall& call) {
  const dbus::Connection connection = Connect();
  const dbus::Message message = MakeMessage(connection, call);
  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_message* raw = nullptr;
  sd_bus_call(connection.get(), message.raw(), kReplyTimeoutMicroseconds, &error, &raw);
  const dbus::Message reply{dbus::MessagePtr(raw)};
  RemoteReply result;
  if (raw) {
    result.arguments = dbus::DescribeArguments(reply);
  } else {
    result.error_name = error.name ? error.name : "no reply";
    result.error_message = error.message ? error.message : "";
  }
  sd_bus_error_free(&error);
  return result;
}

int CountReply(sd_bus_message* message, void* count, sd_bus_error*) {
  if (sd_bus_message_is_method_call(message, nullptr, nullptr) == 0 &&
      sd_bus_message_is_signal(message, nullptr, nullptr) == 0)
    ++*static_cast<int*>(count);
  return 0;
}

int CallWithoutReply(const RemoteCall& call) {
  const dbus::Connection connection = Connect();
  int replies = 0;
  sd_bus_add_filter(connection.get(), nullptr, &CountReply, &replies);
  const dbus::Message message = MakeMessage(connection, call);
  EXPECT_GE(sd_bus_message_set_expect_reply(message.raw(), 0), 0);
  EXPECT_GE(sd_bus_send(connection.get(), message.raw(), nullptr), 0);
  // Messages keep their order: the reply to this one arrives after any reply to the call.
  sd_bus_error error = SD_BUS_ERROR_NULL;
  EXPECT_GE(sd_bus_call_method(connection.get(), call.destination.c_str(), call.path.c_str(),
                               "org.freedesktop.DBus.Peer", "Ping", &error, nullptr, ""),
            0);
  sd_bus_error_free(&error);
  while (sd_bus_process(connection.get(), nullptr) > 0) {
  }
  return replies;
}

template <typename Result>
Result RunOutside(Result (*function)(const RemoteCall&), const RemoteCall& call) {
  std::future<Result> result = std::async(std::launch::async, function, call);
  EXPECT_TRUE(base::RunUntil(
      [&result] { return result.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }));
  return result.get();
}

}  // namespace

RemoteReply CallFromOutside(const RemoteCall& call) { return RunOutside(&Call, call); }

int CallWithoutReplyFromOutside(const RemoteCall& call) {
  return RunOutside(&CallWithoutReply, call);
}

}  // namespace kestle::dbus_utils
