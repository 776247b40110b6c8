// Runs the whole daemon on a hostile bus: objects are listed, added, removed and changed with any
// types and paths, in any order, by the owner of the name or by others; replies are of any kind or
// missing; names change owners; messages are corrupted; and connections end.

#include <cstdlib>
#include <map>

#include "ap/pelmor/daemon.h"
#include "base/logging.h"
#include "base/message_loop.h"
#include "lab/fuzz/dbus_input.h"
#include "lab/fuzz/fake_system_bus.h"
#include "lab/fuzz/support.h"

namespace {

constexpr char kObjectManager[] = "org.freedesktop.DBus.ObjectManager";
constexpr char kRoot[] = "/org/quintara/Larder";

std::vector<std::shared_ptr<kestle::http::ScriptedTransport>> g_transports;

// The calls that the daemon may make, and their destinations.
const std::map<std::string, std::string> kAllowedCalls = {
    {"CheckDeviceRegistered", "org.quintara.Larder"},
    {"UpdateState", "org.quintara.Larder"},
    {"SetProgress", "org.quintara.Larder"},
    {"Complete", "org.quintara.Larder"},
    {"Abort", "org.quintara.Larder"},
    {"LastSyncInfo", "org.torproject.tlsdate"}};

class TestedDaemon : public varelnos::ap::Daemon {
 public:
  using Daemon::OnInit;
};

class Scenario {
 public:
  explicit Scenario(FuzzedDataProvider* input)
      : input_(input), bus_([this](sd_bus_message* call) { return AnswerBlocking(call); }) {
    const fuzz::DeviceFiles& files = fuzz::DeviceFiles::Fresh();
    if (input->ConsumeBool()) files.root().Put("/var/lib/ap/pelmor/refresh_token", "refresh");
    // In every iteration of the loop, or never.
    files.root().Put("/var/lib/ap/pelmor.override",
                     std::string("PELMOR_UPLOAD_INTERVAL_IN_SECONDS=") +
                         (input->ConsumeBool() ? "0" : "1000000"));
  }

  void Run() {
    TestedDaemon daemon;
    CHECK(daemon.OnInit() == 0);
    for (int left = 30; left > 0 && input_->remaining_bytes() > 0; --left) {
      Act();
      for (int done = 0; done < 4; ++done) base::MessageLoop::Current()->RunOnce(base::TimeDelta());
      for (FakeCall& call : bus_.TakeCalls()) waiting_.push_back(std::move(call));
    }
  }

 private:
  using FakeCall = fuzz::FakeSystemBus::Call;
  using Side = fuzz::FakeSystemBus::Side;

  dbus::MessagePtr AnswerBlocking(sd_bus_message* call) {
    const std::string member = sd_bus_message_get_member(call);
    const auto allowed = kAllowedCalls.find(member);
    CHECK(allowed != kAllowedCalls.end()) << member;
    CHECK(sd_bus_message_get_destination(call) == allowed->second);
    // Only the owner of the name may add commands, so without an owner there are none.
    const bool is_of_command = member == "SetProgress" || member == "Complete" || member == "Abort";
    CHECK(!is_of_command || may_have_owner_);
    if (input_->ConsumeIntegralInRange(0, 7) == 0) return nullptr;
    if (input_->ConsumeIntegralInRange(0, 7) == 0) return fuzz::NewErrorReply(1, "a.b.Error");
    const bool is_time = member == "LastSyncInfo";
    return Filled(fuzz::NewReply(1), is_time                             ? "bsx"
                                     : member == "CheckDeviceRegistered" ? "s"
                                                                         : "");
  }

  // With arguments of these types, or sometimes of any.
  dbus::MessagePtr Filled(dbus::MessagePtr message, const std::string& signature) {
    for (std::string type : fuzz::SplitTypes(signature)) {
      if (input_->ConsumeIntegralInRange(0, 15) == 0) type = fuzz::AnyType(input_);
      fuzz::AppendAny(message.get(), type, input_);
    }
    return message;
  }

  void Deliver(dbus::MessagePtr message, const std::string& sender, Side side = Side::kClient) {
    sd_bus_message_set_sender(message.get(), sender.c_str());
    std::function<void(std::string*)> corrupt;
    if (input_->ConsumeIntegralInRange(0, 31) == 0) {
      // A corrupted message can be any message.
      may_have_owner_ = true;
      corrupt = [this](std::string* bytes) {
        const auto at = input_->ConsumeIntegralInRange<size_t>(0, bytes->size() - 1);
        (*bytes)[at] = static_cast<char>(input_->ConsumeIntegral<uint8_t>());
      };
    }
    bus_.Deliver(side, message.get(), corrupt);
  }

  std::string AnySender() {
    return input_->PickValueInArray<const char*>({":1.7", ":1.7", ":1.7", ":1.8", ":1.66"});
  }

  void DeliverSignal(const std::string& path, const std::string& interface,
                     const std::string& member, const std::string& signature) {
    // Any process may also send a signal to the service's own connection.
    const bool to_service = input_->ConsumeIntegralInRange(0, 31) == 0;
    Deliver(Filled(fuzz::NewSignal(path, interface, member), signature), AnySender(),
            to_service ? Side::kService : Side::kClient);
  }

  // A manager or a credentials command, which random bytes would rarely form.
  void AddKnownObject() {
    dbus::MessagePtr signal = fuzz::NewSignal(kRoot, kObjectManager, "InterfacesAdded");
    const std::string path = fuzz::AnyPath(input_);
    const bool is_manager = input_->ConsumeIntegralInRange(0, 3) == 0;
    const int result =
        is_manager ? sd_bus_message_append(signal.get(), "oa{sa{sv}}", path.c_str(), 1,
                                           "org.quintara.Larder.Manager", 0)
                   : sd_bus_message_append(signal.get(), "oa{sa{sv}}", path.c_str(), 1,
                                           "org.quintara.Larder.Command", 3, "Name", "s",
                                           "_apCredentials._setPelmorCredentials", "State", "s",
                                           "queued", "Parameters", "a{sv}", 1, "_authorizationCode",
                                           "s", input_->ConsumeBool() ? "code" : "");
    CHECK(result >= 0);
    Deliver(std::move(signal), AnySender());
  }

  void ChangeOwner() {
    const std::string owner = input_->PickValueInArray<const char*>({"", ":1.7", ":1.8"});
    const bool genuine = input_->ConsumeIntegralInRange(0, 3) > 0;
    if (genuine && !owner.empty()) may_have_owner_ = true;
    dbus::MessagePtr signal =
        fuzz::NewSignal("/org/freedesktop/DBus", "org.freedesktop.DBus", "NameOwnerChanged");
    CHECK(sd_bus_message_append(signal.get(), "sss", "org.quintara.Larder", "", owner.c_str()) >=
          0);
    Deliver(std::move(signal), genuine ? "org.freedesktop.DBus" : ":1.66");
  }

  void AnswerWaiting() {
    if (waiting_.empty()) return;
    const auto at = input_->ConsumeIntegralInRange<size_t>(0, waiting_.size() - 1);
    const FakeCall call = std::move(waiting_[at]);
    waiting_.erase(waiting_.begin() + static_cast<std::ptrdiff_t>(at));
    if (call.IsOf("GetNameOwner")) may_have_owner_ = true;
    if (input_->ConsumeIntegralInRange(0, 7) == 0)
      return Deliver(fuzz::NewErrorReply(call.serial, "a.b.Error"), "org.freedesktop.DBus");
    const std::string signature = call.IsOf("GetNameOwner")        ? "s"
                                  : call.IsOf("GetManagedObjects") ? "a{oa{sa{sv}}}"
                                                                   : "v";
    Deliver(Filled(fuzz::NewReply(call.serial), signature), AnySender());
  }

  void AnswerRequest() {
    const auto which = input_->ConsumeIntegralInRange<size_t>(0, g_transports.size() - 1);
    kestle::http::ScriptedTransport* const transport = g_transports[which].get();
    if (transport->outstanding() == 0) return;
    if (input_->ConsumeIntegralInRange(0, 3) == 0) return transport->Fail("scripted");
    transport->Answer(input_->PickValueInArray({200, 200, 400, 401, 500}),
                      input_->ConsumeBool() ? R"({"access_token":"a","refresh_token":"r"})" : "{}");
  }

  void Act() {
    switch (input_->ConsumeIntegralInRange(0, 15)) {
      case 0:
      case 1:
        return ChangeOwner();
      case 2:
      case 3:
      case 4:
        return AnswerWaiting();
      case 5:
      case 6:
      case 7:
        return DeliverSignal(kRoot, kObjectManager, "InterfacesAdded", "oa{sa{sv}}");
      case 8:
        return DeliverSignal(kRoot, kObjectManager, "InterfacesRemoved", "oas");
      case 9:
      case 10:
        return DeliverSignal(fuzz::AnyPath(input_), "org.freedesktop.DBus.Properties",
                             "PropertiesChanged", "sa{sv}as");
      case 11:
        return Deliver(
            Filled(fuzz::NewCall("/org/quintara/ap/Pelmor/Manager",
                                 "org.quintara.ap.Pelmor.Manager", "RecordStructuredData"),
                   "say"),
            AnySender(), Side::kService);
      case 12:
        clock_.Advance(base::TimeDelta::FromSeconds(input_->ConsumeIntegral<int16_t>()));
        return;
      case 13:
        // The end of a connection, now and then.
        if (input_->ConsumeIntegralInRange(0, 7) == 0)
          bus_.HangUp(input_->ConsumeBool() ? Side::kClient : Side::kService);
        return;
      case 14:
        return AnswerRequest();
      default:
        return AddKnownObject();
    }
  }

  FuzzedDataProvider* const input_;
  base::FakeClock clock_{fuzz::kNow};
  fuzz::FakeSystemBus bus_;
  std::vector<FakeCall> waiting_;
  bool may_have_owner_ = false;
};

}  // namespace

// In place of the one on libcurl.
std::shared_ptr<kestle::http::Transport> kestle::http::Transport::CreateDefault() {
  return g_transports.emplace_back(std::make_shared<ScriptedTransport>());
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const fuzz::Quiet quiet;
  setenv("STATSD_HOST", "none", /*overwrite=*/1);
  FuzzedDataProvider input(data, size);
  Scenario(&input).Run();
  g_transports.clear();
  return 0;
}
