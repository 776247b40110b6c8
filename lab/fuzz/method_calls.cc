// Calls the daemon's methods with arguments of any types, through the generated adaptor into the
// uploader: a call with the right types is recorded unchanged, any other returns its documented
// error, and a value that cannot be encoded ends the process with its documented message.

#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <csignal>
#include <set>

#include "base/logging.h"
#include "base/scoped_fd.h"
#include "bindings/pelmor_manager_adaptor.h"
#include "lab/fuzz/dbus_input.h"
#include "lab/fuzz/support.h"

namespace {

using Types = std::vector<std::string>;

// Forwards the arguments to the uploader, as the daemon does.
class Recorder : public org::quintara::ap::Pelmor::ManagerInterface {
 public:
  bool RecordMetric(kestle::ErrorPtr*, const std::string& name,
                    const std::map<std::string, std::string>& labels,
                    const kestle::Any& value) override {
    rig_.uploader()->RecordMetric(name, labels, value);
    return true;
  }
  bool RecordOfflineData(kestle::ErrorPtr*, const std::string& type_url,
                         const std::vector<uint8_t>& data) override {
    rig_.uploader()->RecordOfflineData(type_url, {data.begin(), data.end()});
    return true;
  }
  bool RecordStructuredData(kestle::ErrorPtr*, const std::string& type_url,
                            const std::vector<uint8_t>& data) override {
    rig_.uploader()->RecordStructuredData(type_url, {data.begin(), data.end()});
    return true;
  }

  std::vector<varelnos::ap::MetricPoint> TakePoints() { return rig_.TakePoints(); }

 private:
  fuzz::UploaderRig rig_;
};

struct Front {
  fuzz::Quiet quiet;
  Recorder recorder;
  org::quintara::ap::Pelmor::ManagerAdaptor adaptor{&recorder};
  kestle::dbus_utils::DBusObject object{nullptr, nullptr, dbus::ObjectPath("/")};
  const kestle::dbus_utils::DBusInterface* interface = nullptr;

  Front() {
    adaptor.RegisterWithDBusObject(&object);
    interface = object.AddOrGetInterface("org.quintara.ap.Pelmor.Manager");
  }
};

// The error that follows from the types; empty for success.
std::string ExpectedError(const Types& wanted, const Types& given) {
  for (size_t i = 0; i < wanted.size(); ++i) {
    if (i >= given.size()) return "Too few parameters in a method call";
    if (given[i] != wanted[i]) return "Method parameter type mismatch";
  }
  return given.size() > wanted.size() ? "Too many parameters in a method call" : "";
}

// The type of the value of a RecordMetric call, inside all of its variants.
std::string ValueType(sd_bus_message* message) {
  const char* contents = nullptr;
  char type = 0;
  CHECK(sd_bus_message_rewind(message, 1) >= 0 && sd_bus_message_skip(message, "sa{ss}") >= 0);
  while (sd_bus_message_peek_type(message, &type, &contents) > 0 && type == 'v')
    CHECK(sd_bus_message_enter_container(message, 'v', contents) > 0);
  return std::string(1, type) + (contents ? contents : "");
}

bool IsSupported(const std::string& value_type) {
  return value_type.size() == 1 && std::string("ybnqiuxtds").find(value_type) != std::string::npos;
}

// Compares the point with the message, read through libsystemd.
void CheckRecorded(const varelnos::ap::MetricPoint& point, sd_bus_message* message) {
  const char* key = nullptr;
  const char* value = nullptr;
  CHECK(sd_bus_message_rewind(message, 1) >= 0 && sd_bus_message_read(message, "s", &key) > 0);
  CHECK(point.name == key);
  std::map<std::string, std::string> labels;
  CHECK(sd_bus_message_enter_container(message, 'a', "{ss}") > 0);
  while (sd_bus_message_read(message, "{ss}", &key, &value) > 0) labels[key] = value;
  CHECK(point.labels == labels);
}

// Runs a call that must end the process in a child.
void ExpectFatalError(const base::Callback<void()>& call) {
  int ends[2];
  CHECK(pipe(ends) == 0);
  const base::ScopedFd reading(ends[0]);
  base::ScopedFd writing(ends[1]);
  const pid_t child = fork();
  if (child == 0) {
    std::signal(SIGABRT, SIG_DFL);
    dup2(writing.get(), STDERR_FILENO);
    call.Run();
    _exit(0);
  }
  writing = base::ScopedFd();
  const std::string log = fuzz::ReadAvailable(reading.get());
  int status = 0;
  CHECK(waitpid(child, &status, 0) == child);
  CHECK(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << "survived: " << log;
  CHECK(log.find("Unknown type: ") != std::string::npos) << log;
}

dbus::MessagePtr MakeCall(const std::string& method, const Types& wanted,
                          FuzzedDataProvider* input) {
  dbus::MessagePtr message =
      fuzz::NewCall("/org/quintara/ap/Pelmor/Manager", "org.quintara.ap.Pelmor.Manager", method);
  // Mostly the right types, because the first wrong one ends the parsing.
  Types types = wanted;
  for (std::string& type : types)
    if (input->ConsumeIntegralInRange(0, 7) == 0) type = fuzz::AnyType(input);
  types.resize(types.size() - (input->ConsumeIntegralInRange(0, 15) == 0 ? 1 : 0));
  if (input->ConsumeIntegralInRange(0, 15) == 0) types.push_back(fuzz::AnyType(input));
  for (const std::string& type : types) fuzz::AppendAny(message.get(), type, input);
  fuzz::Seal(message.get());
  return message;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Front front;
  static std::set<std::string> ended;
  FuzzedDataProvider input(data, size);
  const auto& methods = front.interface->methods();
  const auto& method = methods[input.ConsumeIntegralInRange<size_t>(0, methods.size() - 1)];
  const Types wanted = fuzz::SplitTypes(method.signature);
  const dbus::Message message(MakeCall(method.name, wanted, &input));

  kestle::ErrorPtr error;
  const auto call = [&] {
    dbus::MessageReader reader(&message);
    return method.handler.Run(&reader, &error);
  };
  const std::string expected = ExpectedError(
      wanted, fuzz::SplitTypes(sd_bus_message_get_signature(message.raw(), /*complete=*/1)));
  const bool is_metric = method.name == "RecordMetric";
  if (expected.empty() && is_metric) {
    const std::string value_type = ValueType(message.raw());
    if (!IsSupported(value_type)) {
      if (ended.insert(value_type.substr(0, 2)).second) ExpectFatalError([&] { call(); });
      return 0;
    }
  }
  const bool success = call();
  CHECK(success == expected.empty());
  CHECK(success || error->GetCode() == kestle::dbus_utils::kInvalidArgs);
  CHECK(success || error->GetMessage() == expected) << error->GetMessage();
  const auto points = front.recorder.TakePoints();
  CHECK(points.size() == (success && is_metric ? 1 : 0));
  if (!points.empty()) CheckRecorded(points.front(), message.raw());
  return 0;
}
