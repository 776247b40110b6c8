#include "metrics/metrics_library.h"

#include <netdb.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/logging.h"
#include "base/strings.h"

namespace {

constexpr char kDefaultHost[] = "127.0.0.1";
constexpr char kDefaultPort[] = "8125";
constexpr char kHistogram[] = "h";
// For collectors that know no histograms.
constexpr char kTimer[] = "ms";

std::string FromEnvironment(const char* name, const char* otherwise) {
  const char* const value = std::getenv(name);
  return value && *value ? value : otherwise;
}

// The resolver would truncate a larger number to 16 bits.
bool IsPort(const std::string& text) {
  constexpr int kLastPort = 65535;
  int number = 0;
  return base::StringToInt(text, &number) && number > 0 && number <= kLastPort;
}

}  // namespace

void MetricsLibrary::Init() {
  const std::string host = FromEnvironment("STATSD_HOST", kDefaultHost);
  const std::string port = FromEnvironment("STATSD_PORT", kDefaultPort);
  type_ = FromEnvironment("STATSD_TYPE", kHistogram);
  if (type_ != kHistogram && type_ != kTimer) {
    LOG(WARNING) << "No metrics will be sent: STATSD_TYPE must be h or ms, not '" << type_ << "'";
    return;
  }
  addrinfo hints{};
  // Addresses only: resolving a name would block the message loop.
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* found = nullptr;
  const int error =
      IsPort(port) ? getaddrinfo(host.c_str(), port.c_str(), &hints, &found) : EAI_SERVICE;
  if (error != 0) {
    LOG(WARNING) << "No metrics will be sent: STATSD_HOST and STATSD_PORT must be an address and a "
                    "port number, not '"
                 << host << "' and '" << port << "': " << gai_strerror(error);
    return;
  }
  const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owned(found, freeaddrinfo);
  socket_ = base::ScopedFd(socket(found->ai_family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  std::memcpy(&collector_, found->ai_addr, found->ai_addrlen);
  collector_size_ = found->ai_addrlen;
}

bool MetricsLibrary::SendSparse(const std::string& name, int sample) {
  const std::string datagram = name + ":" + std::to_string(sample) + "|" + type_;
  // Not connected: after a missing collector, the next send on a connected socket would fail.
  const ssize_t sent = sendto(socket_.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL,
                              reinterpret_cast<const sockaddr*>(&collector_), collector_size_);
  return sent == static_cast<ssize_t>(datagram.size());
}
