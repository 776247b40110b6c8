#include "dbus/testing/fake_service.h"

#include <cerrno>
#include <utility>

#include "base/logging.h"
#include "dbus/testing/describe.h"

namespace dbus {

namespace {
constexpr char kObjectManager[] = "org.freedesktop.DBus.ObjectManager";
constexpr char kProperties[] = "org.freedesktop.DBus.Properties";
}  // namespace

FakeService::FakeService(const std::string& name) : name_(name) {
  thread_.Run([this] {
    CHECK(sd_bus_open_system(&connection_) >= 0) << "No bus";
    CHECK(sd_bus_attach_event(connection_, thread_.event(), SD_EVENT_PRIORITY_NORMAL) >= 0);
    sd_bus_slot* slot = nullptr;
    CHECK(sd_bus_add_fallback(connection_, &slot, "/", &FakeService::OnCall, this) >= 0);
    calls_slot_.reset(slot);
  });
  if (!name_.empty()) TakeName();
}

FakeService::~FakeService() {
  thread_.Run([this] {
    calls_slot_.reset();
    unanswered_.clear();
    sd_bus_detach_event(connection_);
    sd_bus_flush_close_unref(connection_);
  });
}

void FakeService::Answer(const std::string& path, const std::string& interface,
                         const std::string& method, const Writer& reply) {
  SetScript(path, interface, method, {Script::Kind::kAnswer, reply, "", ""});
}

void FakeService::Refuse(const std::string& path, const std::string& interface,
                         const std::string& method, const std::string& error_name,
                         const std::string& message) {
  SetScript(path, interface, method, {Script::Kind::kRefuse, {}, error_name, message});
}

void FakeService::LeaveUnanswered(const std::string& path, const std::string& interface,
                                  const std::string& method) {
  SetScript(path, interface, method, {Script::Kind::kLeaveUnanswered, {}, "", ""});
}

void FakeService::AnswerUnanswered() {
  thread_.Run([this] { AnswerLeftCalls(); });
}

void FakeService::AnswerAll(const std::string& path, const std::string& interface,
                            const std::string& method) {
  thread_.Run([&] {
    scripts_[{path, interface, method}] = {Script::Kind::kAnswer, {}, "", ""};
    AnswerLeftCalls();
  });
}

void FakeService::AnswerLeftCalls() {
  for (const Message& call : std::exchange(unanswered_, {})) {
    const auto script =
        scripts_.find({call.GetPath(), call.GetInterface(), call.GetMember()})->second;
    if (script.kind == Script::Kind::kAnswer)
      Reply(call, script.reply);
    else
      AnswerAsObject(call);
  }
}

void FakeService::SetScript(const std::string& path, const std::string& interface,
                            const std::string& method, const Script& script) {
  thread_.Run([&] { scripts_[{path, interface, method}] = script; });
}

int FakeService::CallCount(const std::string& method) {
  int count = 0;
  thread_.Run([&] {
    for (const Call& call : calls_) count += call.method == method ? 1 : 0;
  });
  return count;
}

int FakeService::RequestedReplies(const std::string& method) {
  int count = 0;
  thread_.Run([&] {
    for (const Call& call : calls_) count += call.method == method && call.requests_reply ? 1 : 0;
  });
  return count;
}

std::vector<std::string> FakeService::Calls() {
  std::vector<std::string> texts;
  thread_.Run([&] {
    for (const Call& call : calls_)
      texts.push_back(call.path + " " + call.interface + "." + call.method + "(" +
                      Join(call.arguments) + ")");
  });
  return texts;
}

std::vector<std::string> FakeService::LastArguments(const std::string& method) {
  std::vector<std::string> arguments;
  thread_.Run([&] {
    for (const Call& call : calls_)
      if (call.method == method) arguments = call.arguments;
  });
  return arguments;
}

void FakeService::Emit(const std::string& path, const std::string& interface,
                       const std::string& signal, const Writer& arguments,
                       const std::string& destination) {
  thread_.Run([&] { Send(path, interface, signal, arguments, destination); });
}

void FakeService::AddObjectManager(const std::string& path) {
  thread_.Run([&] { manager_path_ = path; });
}

void FakeService::AddObject(const std::string& path, const std::string& interface,
                            const Properties& properties) {
  thread_.Run([&] {
    objects_[path][interface] = properties;
    const auto arguments = [&](MessageWriter* writer) {
      writer->AppendObjectPath(ObjectPath(path));
      WriteInterfaces(writer, {{interface, properties}});
    };
    if (!manager_path_.empty())
      Send(manager_path_, kObjectManager, "InterfacesAdded", arguments, "");
  });
}

void FakeService::RemoveObject(const std::string& path, const std::string& interface) {
  thread_.Run([&] {
    objects_[path].erase(interface);
    const auto arguments = [&](MessageWriter* writer) {
      writer->AppendObjectPath(ObjectPath(path));
      writer->OpenContainer('a', "s");
      writer->AppendString(interface);
      writer->CloseContainer();
    };
    if (!manager_path_.empty())
      Send(manager_path_, kObjectManager, "InterfacesRemoved", arguments, "");
  });
}

void FakeService::ChangeProperty(const std::string& path, const std::string& interface,
                                 const std::string& name, const Writer& value) {
  thread_.Run([&] { AnnounceChange(path, interface, name, value, /*with_value=*/true); });
}

void FakeService::InvalidateProperty(const std::string& path, const std::string& interface,
                                     const std::string& name, const Writer& value) {
  thread_.Run([&] { AnnounceChange(path, interface, name, value, /*with_value=*/false); });
}

void FakeService::AnnounceChange(const std::string& path, const std::string& interface,
                                 const std::string& name, const Writer& value, bool with_value) {
  objects_[path][interface][name] = value;
  const auto arguments = [&](MessageWriter* writer) {
    writer->AppendString(interface);
    WriteProperties(writer, with_value ? Properties{{name, value}} : Properties());
    writer->OpenContainer('a', "s");
    if (!with_value) writer->AppendString(name);
    writer->CloseContainer();
  };
  Send(path, kProperties, "PropertiesChanged", arguments, "");
}

void FakeService::TakeName() {
  thread_.Run([this] {
    const int result = sd_bus_request_name(connection_, name_.c_str(), /*flags=*/0);
    CHECK(result >= 0 || result == -EALREADY) << "No name " << name_;
  });
}

void FakeService::ReleaseName() {
  thread_.Run([this] { CHECK(sd_bus_release_name(connection_, name_.c_str()) >= 0) << name_; });
}

std::string FakeService::UniqueName() {
  const char* name = nullptr;
  thread_.Run([&] { CHECK(sd_bus_get_unique_name(connection_, &name) >= 0); });
  return name;
}

int FakeService::OnCall(sd_bus_message* raw, void* self, sd_bus_error* /*error*/) {
  auto* const service = static_cast<FakeService*>(self);
  Message call(Reference(raw));
  service->calls_.push_back({call.GetPath(), call.GetInterface(), call.GetMember(),
                             DescribeArguments(call), sd_bus_message_get_expect_reply(raw) > 0});
  const auto script =
      service->scripts_.find({call.GetPath(), call.GetInterface(), call.GetMember()});
  if (script != service->scripts_.end()) return service->Follow(script->second, std::move(call));
  return service->AnswerAsObject(call);
}

// Like sd-bus's callbacks, these return 1 if the call is handled and 0 if not.
int FakeService::Follow(const Script& script, Message call) {
  if (script.kind == Script::Kind::kAnswer) return Reply(call, script.reply);
  if (script.kind == Script::Kind::kRefuse)
    sd_bus_reply_method_errorf(call.raw(), script.error_name.c_str(), "%s", script.message.c_str());
  if (script.kind == Script::Kind::kLeaveUnanswered) unanswered_.push_back(std::move(call));
  return 1;
}

int FakeService::Reply(const Message& call, const Writer& reply) {
  sd_bus_message* raw = nullptr;
  CHECK(sd_bus_message_new_method_return(call.raw(), &raw) >= 0);
  const MessagePtr owned(raw);
  MessageWriter writer(raw);
  if (reply) reply(&writer);
  sd_bus_send(connection_, raw, nullptr);
  return 1;
}

int FakeService::AnswerAsObject(const Message& call) {
  if (call.GetInterface() == kObjectManager && call.GetMember() == "GetManagedObjects" &&
      call.GetPath() == manager_path_)
    return Reply(call, [this](MessageWriter* writer) { WriteObjects(writer); });
  if (call.GetInterface() != kProperties || call.GetMember() != "Get") return 0;
  MessageReader reader(&call);
  std::string interface;
  std::string name;
  if (!reader.PopString(&interface) || !reader.PopString(&name)) return 0;
  const Properties& properties = objects_[call.GetPath()][interface];
  const auto property = properties.find(name);
  return property == properties.end() ? 0 : Reply(call, property->second);
}

void FakeService::WriteProperties(MessageWriter* writer, const Properties& properties) {
  writer->OpenContainer('a', "{sv}");
  for (const auto& [name, write_value] : properties) {
    writer->OpenContainer('e', "sv");
    writer->AppendString(name);
    write_value(writer);
    writer->CloseContainer();
  }
  writer->CloseContainer();
}

void FakeService::WriteInterfaces(MessageWriter* writer, const Interfaces& interfaces) {
  writer->OpenContainer('a', "{sa{sv}}");
  for (const auto& [name, properties] : interfaces) {
    writer->OpenContainer('e', "sa{sv}");
    writer->AppendString(name);
    WriteProperties(writer, properties);
    writer->CloseContainer();
  }
  writer->CloseContainer();
}

void FakeService::WriteObjects(MessageWriter* writer) const {
  writer->OpenContainer('a', "{oa{sa{sv}}}");
  for (const auto& [path, interfaces] : objects_) {
    writer->OpenContainer('e', "oa{sa{sv}}");
    writer->AppendObjectPath(ObjectPath(path));
    WriteInterfaces(writer, interfaces);
    writer->CloseContainer();
  }
  writer->CloseContainer();
}

void FakeService::Send(const std::string& path, const std::string& interface,
                       const std::string& signal, const Writer& arguments,
                       const std::string& destination) {
  sd_bus_message* raw = nullptr;
  CHECK(sd_bus_message_new_signal(connection_, &raw, path.c_str(), interface.c_str(),
                                  signal.c_str()) >= 0);
  const MessagePtr owned(raw);
  MessageWriter writer(raw);
  if (arguments) arguments(&writer);
  if (!destination.empty()) sd_bus_message_set_destination(raw, destination.c_str());
  sd_bus_send(connection_, raw, nullptr);
  // The bus replies after it has forwarded the signal.
  sd_bus_call_method(connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                     "org.freedesktop.DBus.Peer", "Ping", nullptr, nullptr, nullptr);
}

}  // namespace dbus
