// A fake remote service with its own thread and connection, so that it replies while the code under
// test blocks. It connects to the bus at DBUS_SYSTEM_BUS_ADDRESS.
//
// Every operation is complete when it returns: a signal is sent, a script is in force.
#pragma once

#include <systemd/sd-bus.h>

#include <functional>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "dbus/message.h"
#include "dbus/slot.h"
#include "dbus/testing/loop_thread.h"

namespace dbus {

class FakeService {
 public:
  // Appends the arguments of a reply or a signal, or the variant with a property's value.
  using Writer = std::function<void(MessageWriter*)>;
  using Properties = std::map<std::string, Writer>;

  // Acquires the name, unless it is empty.
  explicit FakeService(const std::string& name);
  ~FakeService();
  FakeService(const FakeService&) = delete;
  FakeService& operator=(const FakeService&) = delete;

  // Sets the script for calls of the method from now on. Without a script, a call gets the error of
  // an unknown method.
  void Answer(const std::string& path, const std::string& interface, const std::string& method,
              const Writer& reply = {});
  void Refuse(const std::string& path, const std::string& interface, const std::string& method,
              const std::string& error_name, const std::string& message);
  void LeaveUnanswered(const std::string& path, const std::string& interface,
                       const std::string& method);
  // Answers the calls left unanswered by the method's present reply, or as if it had no script.
  void AnswerUnanswered();
  // `Answer` and `AnswerUnanswered` at once, so that no later call is answered in between: replies
  // have the order of the calls.
  void AnswerAll(const std::string& path, const std::string& interface, const std::string& method);

  int CallCount(const std::string& method);
  // Of these calls, those that request a reply.
  int RequestedReplies(const std::string& method);
  // All calls so far, each as "/path interface.Method(arguments)"; see `describe.h`.
  std::vector<std::string> Calls();
  // Of the last call of the method; empty without one.
  std::vector<std::string> LastArguments(const std::string& method);

  // Broadcasts the signal, or sends it only to the connection with the unique name `destination`.
  void Emit(const std::string& path, const std::string& interface, const std::string& signal,
            const Writer& arguments = {}, const std::string& destination = "");

  // Makes the path an object manager that lists the objects below and announces changes of them.
  void AddObjectManager(const std::string& path);
  // Adding the interface again replaces the properties, and announces it again.
  void AddObject(const std::string& path, const std::string& interface,
                 const Properties& properties);
  void RemoveObject(const std::string& path, const std::string& interface);
  void ChangeProperty(const std::string& path, const std::string& interface,
                      const std::string& name, const Writer& value);
  // Changes the value and announces the change without the value.
  void InvalidateProperty(const std::string& path, const std::string& interface,
                          const std::string& name, const Writer& value);

  void TakeName();
  void ReleaseName();
  std::string UniqueName();

 private:
  struct Script {
    enum class Kind { kAnswer, kRefuse, kLeaveUnanswered } kind;
    Writer reply;
    std::string error_name;
    std::string message;
  };
  struct Call {
    std::string path;
    std::string interface;
    std::string method;
    std::vector<std::string> arguments;
    bool requests_reply;
  };
  using Interfaces = std::map<std::string, Properties>;

  static int OnCall(sd_bus_message* raw, void* self, sd_bus_error* error);
  static void WriteProperties(MessageWriter* writer, const Properties& properties);
  static void WriteInterfaces(MessageWriter* writer, const Interfaces& interfaces);

  // Everything below except `SetScript` runs on the thread.
  void SetScript(const std::string& path, const std::string& interface, const std::string& method,
                 const Script& script);
  void AnswerLeftCalls();
  int Follow(const Script& script, Message call);
  int Reply(const Message& call, const Writer& reply);
  void AnnounceChange(const std::string& path, const std::string& interface,
                      const std::string& name, const Writer& value, bool with_value);
  int AnswerAsObject(const Message& call);
  void WriteObjects(MessageWriter* writer) const;
  void Send(const std::string& path, const std::string& interface, const std::string& signal,
            const Writer& arguments, const std::string& destination);

  const std::string name_;
  sd_bus* connection_ = nullptr;
  Slot calls_slot_;
  std::map<std::tuple<std::string, std::string, std::string>, Script> scripts_;
  std::vector<Call> calls_;
  std::vector<Message> unanswered_;
  std::string manager_path_;
  std::map<std::string, Interfaces> objects_;
  LoopThread thread_;
};

}  // namespace dbus
