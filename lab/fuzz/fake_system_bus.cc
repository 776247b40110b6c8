#include "lab/fuzz/fake_system_bus.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/logging.h"
#include "lab/fuzz/dbus_input.h"

namespace fuzz {

namespace {

FakeSystemBus* g_bus = nullptr;

// The fixed header of a message.
constexpr size_t kFixedHeaderBytes = 16;
constexpr size_t kBodyLengthAt = 4;
constexpr size_t kSerialAt = 8;
constexpr size_t kFieldsLengthAt = 12;
constexpr uint32_t kHelloSerial = 1;

constexpr char kUniqueName[] = ":1.2";

// A bus's side of the authentication of a client that does not negotiate descriptors.
constexpr char kAdmitted[] = "DATA\r\nOK 00112233445566778899aabbccddeeff\r\n";

uint32_t NumberAt(const std::string& bytes, size_t at) {
  uint32_t number = 0;
  memcpy(&number, bytes.data() + at, sizeof(number));
  return number;
}

// Of the first message in the bytes; 0 if its header is incomplete.
size_t MessageLength(const std::string& bytes) {
  if (bytes.size() < kFixedHeaderBytes) return 0;
  constexpr size_t kAlignment = 8;
  const size_t header = kFixedHeaderBytes + NumberAt(bytes, kFieldsLengthAt);
  return (header + kAlignment - 1) / kAlignment * kAlignment + NumberAt(bytes, kBodyLengthAt);
}

dbus::MessagePtr HelloReply() {
  dbus::MessagePtr reply = NewReply(kHelloSerial);
  CHECK(sd_bus_message_append(reply.get(), "s", kUniqueName) >= 0);
  CHECK(sd_bus_message_set_sender(reply.get(), "org.freedesktop.DBus") >= 0);
  return reply;
}

}  // namespace

bool FakeSystemBus::Call::IsOf(const std::string& member) const {
  return bytes.find(member + '\0') != std::string::npos;
}

FakeSystemBus::FakeSystemBus(BlockingCallHandler on_blocking_call)
    : on_blocking_call_(std::move(on_blocking_call)) {
  CHECK(g_bus == nullptr);
  g_bus = this;
}

FakeSystemBus::~FakeSystemBus() { g_bus = nullptr; }

const base::ScopedFd& FakeSystemBus::ServerOf(Side side) const {
  return (side == Side::kClient ? peers_.front() : peers_.back()).server;
}

void FakeSystemBus::Deliver(Side side, sd_bus_message* message,
                            const std::function<void(std::string*)>& corrupt) {
  std::string bytes = WireBytes(message);
  if (corrupt) corrupt(&bytes);
  send(ServerOf(side).get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

void FakeSystemBus::HangUp(Side side) {
  (side == Side::kClient ? peers_.front() : peers_.back()).server = base::ScopedFd();
}

std::vector<FakeSystemBus::Call> FakeSystemBus::TakeCalls() {
  unread_ += ReadAvailable(ServerOf(Side::kClient).get());
  std::vector<Call> calls;
  for (size_t length = 0; (length = MessageLength(unread_)) > 0 && length <= unread_.size();) {
    constexpr char kMethodCall = 1;
    if (unread_[1] == kMethodCall)
      calls.push_back({NumberAt(unread_, kSerialAt), unread_.substr(0, length)});
    unread_.erase(0, length);
  }
  return calls;
}

void FakeSystemBus::Connect(sd_bus* connection) {
  int ends[2];
  CHECK(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) == 0);
  peers_.push_back({connection, base::ScopedFd(ends[1])});
  // Sent in advance, so that the client never waits for it.
  CHECK(write(ends[1], kAdmitted, strlen(kAdmitted)) > 0);
  CHECK(sd_bus_set_fd(connection, ends[0], ends[0]) >= 0);
}

void FakeSystemBus::Admit(sd_bus* connection) {
  // Replies only after the call: sd-bus would parse bytes that directly follow the authentication
  // as further lines of it, and abort.
  const auto is_it = [connection](const Peer& peer) { return peer.connection == connection; };
  const auto peer = std::find_if(peers_.begin(), peers_.end(), is_it);
  CHECK(peer != peers_.end());
  std::string sent;
  while (sent.find("Hello") == std::string::npos) {
    CHECK(sd_bus_process(connection, nullptr) > 0);
    sent += ReadAvailable(peer->server.get());
  }
  const std::string reply = WireBytes(HelloReply().get());
  CHECK(send(peer->server.get(), reply.data(), reply.size(), MSG_NOSIGNAL) > 0);
  while (sd_bus_is_ready(connection) == 0) CHECK(sd_bus_process(connection, nullptr) > 0);
}

int FakeSystemBus::Answer(sd_bus_message* call, sd_bus_error* error, sd_bus_message** reply) {
  CHECK(sd_bus_message_seal(call, ++last_cookie_, 0) >= 0);
  dbus::MessagePtr answer = on_blocking_call_(call);
  if (!answer) return sd_bus_error_set_errno(error, ETIMEDOUT);
  Seal(answer.get());
  if (sd_bus_message_is_method_error(answer.get(), nullptr) > 0)
    return sd_bus_error_copy(error, sd_bus_message_get_error(answer.get()));
  *reply = answer.release();
  return 1;
}

}  // namespace fuzz

// These replace the functions of sd-bus.
extern "C" int sd_bus_set_address(sd_bus* connection, const char*) {
  fuzz::g_bus->Connect(connection);
  return 0;
}

extern "C" int sd_bus_get_unique_name(sd_bus* connection, const char** name) {
  fuzz::g_bus->Admit(connection);
  *name = fuzz::kUniqueName;
  return 0;
}

extern "C" int sd_bus_request_name(sd_bus*, const char*, uint64_t) { return 1; }

extern "C" int sd_bus_call(sd_bus*, sd_bus_message* call, uint64_t, sd_bus_error* error,
                           sd_bus_message** reply) {
  return fuzz::g_bus->Answer(call, error, reply);
}
