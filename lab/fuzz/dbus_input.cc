#include "lab/fuzz/dbus_input.h"

#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstring>

#include "base/logging.h"
#include "lab/fuzz/support.h"

namespace fuzz {

namespace {

constexpr char kBasicTypes[] = "ybnqiuxtdsog";
constexpr size_t kBasicTypeCount = sizeof(kBasicTypes) - 1;
// Of nested containers in a signature.
constexpr int kMaxDepth = 6;
// Of nested containers in a message, including variants, that the bus accepts.
constexpr int kMaxMessageDepth = 64;
constexpr int kMaxItems = 4;

// Known to the code under test.
constexpr const char* kWords[] = {"org.quintara.Larder.Manager",
                                  "org.quintara.Larder.Command",
                                  "org.freedesktop.DBus.Properties",
                                  "Name",
                                  "Id",
                                  "State",
                                  "Status",
                                  "Parameters",
                                  "Progress",
                                  "Results",
                                  "DeviceId",
                                  "ModelId",
                                  "PairingInfo",
                                  "queued",
                                  "inProgress",
                                  "done",
                                  "_apCredentials._setPelmorCredentials",
                                  "_authorizationCode",
                                  "code",
                                  "network",
                                  ":1.7"};
constexpr const char* kPaths[] = {"/",
                                  "/org/quintara/Larder",
                                  "/org/quintara/Larder/Manager",
                                  "/org/quintara/Larder/Manager2",
                                  "/org/quintara/Larder/commands/1",
                                  "/org/quintara/Larder/commands/2",
                                  "/org/quintara/ap/Pelmor/Manager"};

// A connection to a socket of our own, because sd-bus creates messages on connections only.
struct Loopback {
  int peer = -1;
  sd_bus* bus = nullptr;

  Loopback() {
    int ends[2];
    CHECK(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) == 0);
    peer = ends[1];
    CHECK(write(peer, kAuthenticated, strlen(kAuthenticated)) > 0);
    CHECK(sd_bus_new(&bus) >= 0 && sd_bus_set_fd(bus, ends[0], ends[0]) >= 0);
    CHECK(sd_bus_start(bus) >= 0);
    while (sd_bus_process(bus, nullptr) > 0) {
    }
    ReadAvailable(peer);
  }
  static Loopback& Get() {
    static Loopback loopback;
    return loopback;
  }
};

std::string AnyType(FuzzedDataProvider* input, int depth) {
  enum { kBasic, kVariant, kArray, kDictionary, kStructure, kKinds };
  switch (depth >= kMaxDepth ? kBasic : input->ConsumeIntegralInRange<int>(0, kKinds - 1)) {
    case kVariant:
      return "v";
    case kArray:
      return "a" + AnyType(input, depth + 1);
    case kDictionary: {
      const std::string key(
          1, kBasicTypes[input->ConsumeIntegralInRange<size_t>(0, kBasicTypeCount - 1)]);
      return "a{" + key + AnyType(input, depth + 1) + "}";
    }
    case kStructure: {
      std::string fields = AnyType(input, depth + 1);
      while (fields.size() < 10 && input->ConsumeBool()) fields += AnyType(input, depth + 1);
      return "(" + fields + ")";
    }
    default:
      return {kBasicTypes[input->ConsumeIntegralInRange<size_t>(0, kBasicTypeCount - 1)]};
  }
}

// Mostly the types that the code under test expects in a variant.
std::string AnyVariantType(FuzzedDataProvider* input, int depth) {
  constexpr int kWithinADictionary = 4;
  if (depth + kWithinADictionary > kMaxMessageDepth) return "s";
  const int kind = input->ConsumeIntegralInRange(0, 3);
  return kind == 0 ? "a{sv}" : kind == 1 ? AnyType(input, depth) : "s";
}

void AppendBasic(sd_bus_message* message, char type, FuzzedDataProvider* input) {
  const auto bits = input->ConsumeIntegral<uint64_t>();
  const int boolean = static_cast<int>(bits & 1);
  double real = 0;
  std::string text;
  const void* value = &bits;
  if (type == 'b') value = &boolean;
  if (type == 'd') {
    real = input->ConsumeFloatingPoint<double>();
    value = &real;
  }
  if (type == 's') text = AnyWord(input);
  if (type == 'o') text = AnyPath(input);
  if (type == 'g') text = AnyType(input, kMaxDepth);
  if (type == 's' || type == 'o' || type == 'g') value = text.c_str();
  // The bus rejects noncharacters of Unicode, such as U+FFFF.
  if (sd_bus_message_append_basic(message, type, value) >= 0) return;
  CHECK(type == 's' && sd_bus_message_append_basic(message, type, "U+FFFF") >= 0);
}

void Append(sd_bus_message* message, const std::string& type, FuzzedDataProvider* input, int depth);

void AppendContainer(sd_bus_message* message, char kind, const std::string& contents,
                     FuzzedDataProvider* input, int depth) {
  CHECK(sd_bus_message_open_container(message, kind, contents.c_str()) >= 0);
  for (const std::string& type : SplitTypes(contents)) Append(message, type, input, depth + 1);
  CHECK(sd_bus_message_close_container(message) >= 0);
}

void AppendArray(sd_bus_message* message, const std::string& item, FuzzedDataProvider* input,
                 int depth) {
  CHECK(sd_bus_message_open_container(message, 'a', item.c_str()) >= 0);
  for (int left = input->ConsumeIntegralInRange(0, kMaxItems); left > 0; --left)
    Append(message, item, input, depth + 1);
  CHECK(sd_bus_message_close_container(message) >= 0);
}

void Append(sd_bus_message* message, const std::string& type, FuzzedDataProvider* input,
            int depth) {
  const std::string contents = type.size() > 2 ? type.substr(1, type.size() - 2) : "";
  switch (type.front()) {
    case 'a':
      return AppendArray(message, type.substr(1), input, depth);
    case '(':
      return AppendContainer(message, 'r', contents, input, depth);
    case '{':
      return AppendContainer(message, 'e', contents, input, depth);
    case 'v':
      return AppendContainer(message, 'v', AnyVariantType(input, depth), input, depth);
    default:
      return AppendBasic(message, type.front(), input);
  }
}

dbus::MessagePtr SealedCall(uint32_t serial) {
  dbus::MessagePtr call = NewCall("/", "a.b", "C");
  CHECK(sd_bus_message_seal(call.get(), serial, 0) >= 0);
  return call;
}

size_t TypeLength(const std::string& signature, size_t start) {
  if (signature[start] == 'a') return 1 + TypeLength(signature, start + 1);
  size_t end = start;
  int open = 0;
  do {
    if (signature[end] == '(' || signature[end] == '{') ++open;
    if (signature[end] == ')' || signature[end] == '}') --open;
    ++end;
  } while (open > 0);
  return end - start;
}

}  // namespace

dbus::MessagePtr NewCall(const std::string& path, const std::string& interface,
                         const std::string& member) {
  sd_bus_message* message = nullptr;
  CHECK(sd_bus_message_new_method_call(Loopback::Get().bus, &message, "org.quintara.ap.Pelmor",
                                       path.c_str(), interface.c_str(), member.c_str()) >= 0);
  return dbus::MessagePtr(message);
}

dbus::MessagePtr NewSignal(const std::string& path, const std::string& interface,
                           const std::string& member) {
  sd_bus_message* message = nullptr;
  CHECK(sd_bus_message_new_signal(Loopback::Get().bus, &message, path.c_str(), interface.c_str(),
                                  member.c_str()) >= 0);
  return dbus::MessagePtr(message);
}

dbus::MessagePtr NewReply(uint32_t serial) {
  const dbus::MessagePtr call = SealedCall(serial);
  sd_bus_message* message = nullptr;
  CHECK(sd_bus_message_new_method_return(call.get(), &message) >= 0);
  return dbus::MessagePtr(message);
}

dbus::MessagePtr NewErrorReply(uint32_t serial, const std::string& name) {
  const dbus::MessagePtr call = SealedCall(serial);
  sd_bus_message* message = nullptr;
  CHECK(sd_bus_message_new_method_errorf(call.get(), &message, name.c_str(), "message") >= 0);
  return dbus::MessagePtr(message);
}

void Seal(sd_bus_message* message) {
  CHECK(sd_bus_message_seal(message, /*cookie=*/1, /*timeout_usec=*/0) >= 0);
}

std::string WireBytes(sd_bus_message* message) {
  const Loopback& loopback = Loopback::Get();
  CHECK(sd_bus_send(loopback.bus, message, nullptr) >= 0 && sd_bus_flush(loopback.bus) >= 0);
  return ReadAvailable(loopback.peer);
}

std::string ReadAvailable(int fd) {
  std::string bytes;
  char chunk[4096];
  for (ssize_t count = 0; (count = read(fd, chunk, sizeof(chunk))) > 0;)
    bytes.append(chunk, static_cast<size_t>(count));
  return bytes;
}

std::string AnyWord(FuzzedDataProvider* input) {
  return input->ConsumeBool() ? input->PickValueInArray(kWords) : BusText(input);
}

std::string AnyPath(FuzzedDataProvider* input) { return input->PickValueInArray(kPaths); }

std::string AnyType(FuzzedDataProvider* input) { return AnyType(input, 0); }

void AppendAny(sd_bus_message* message, const std::string& type, FuzzedDataProvider* input) {
  Append(message, type, input, 0);
}

std::vector<std::string> SplitTypes(const std::string& signature) {
  std::vector<std::string> types;
  for (size_t at = 0; at < signature.size(); at += types.back().size())
    types.push_back(signature.substr(at, TypeLength(signature, at)));
  return types;
}

}  // namespace fuzz
