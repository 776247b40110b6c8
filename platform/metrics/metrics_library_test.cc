#include "metrics/metrics_library.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>

#include <cstdlib>
#include <map>
#include <optional>
#include <string>

#include "base/testing/log_capture.h"

namespace {

// A collector on a free loopback port, which it sets in the environment.
class Collector {
 public:
  Collector() : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(bind(socket_.get(), generic, size), 0);
    EXPECT_EQ(getsockname(socket_.get(), generic, &size), 0);
    port_ = ntohs(address.sin_port);
    setenv("STATSD_PORT", std::to_string(port_).c_str(), 1);
  }

  [[nodiscard]] uint16_t port() const { return port_; }

  std::string Receive() {
    constexpr int kDeadlineMs = 10'000;
    pollfd waiting{socket_.get(), POLLIN, 0};
    EXPECT_EQ(poll(&waiting, 1, kDeadlineMs), 1);
    char datagram[1024];
    const ssize_t size = recv(socket_.get(), datagram, sizeof(datagram), MSG_DONTWAIT);
    return size < 0 ? "" : std::string(datagram, static_cast<size_t>(size));
  }

 private:
  base::ScopedFd socket_;
  uint16_t port_ = 0;
};

class MetricsLibraryTest : public testing::Test {
 protected:
  ~MetricsLibraryTest() override {
    unsetenv("STATSD_HOST");
    unsetenv("STATSD_PORT");
    unsetenv("STATSD_TYPE");
  }

  MetricsLibrary metrics_;
};

TEST_F(MetricsLibraryTest, ASampleIsOneDatagram) {
  Collector collector;
  metrics_.Init();
  EXPECT_TRUE(metrics_.SendSparse("AccessPoint.PelmorMetrics.ResponseStatusCode", 200));
  EXPECT_TRUE(metrics_.SendSparse("x", -1));
  EXPECT_EQ(collector.Receive(), "AccessPoint.PelmorMetrics.ResponseStatusCode:200|h");
  EXPECT_EQ(collector.Receive(), "x:-1|h");
}

TEST_F(MetricsLibraryTest, TheHostIsConfigurable) {
  Collector collector;
  setenv("STATSD_HOST", "127.0.0.1", 1);
  metrics_.Init();
  EXPECT_TRUE(metrics_.SendSparse("x", 1));
  EXPECT_EQ(collector.Receive(), "x:1|h");
}

TEST_F(MetricsLibraryTest, TheTypeIsConfigurable) {
  const std::map<std::string, std::string> datagrams = {
      {"", "x:1|h"}, {"h", "x:1|h"}, {"ms", "x:1|ms"}};
  Collector collector;
  for (const auto& [type, datagram] : datagrams) {
    MetricsLibrary metrics;
    setenv("STATSD_TYPE", type.c_str(), 1);
    metrics.Init();
    EXPECT_TRUE(metrics.SendSparse("x", 1));
    EXPECT_EQ(collector.Receive(), datagram) << type;
  }
}

TEST_F(MetricsLibraryTest, AnUnknownTypeIsLoggedAndSamplesAreLost) {
  for (const char* type : {"c", "MS", "h|@0.1", "ms "}) {
    MetricsLibrary metrics;
    const base::LogCapture log;
    setenv("STATSD_TYPE", type, 1);
    metrics.Init();
    EXPECT_FALSE(metrics.SendSparse("x", 1)) << type;
    EXPECT_THAT(log.lines(), testing::ElementsAre(
                                 std::string("WARNING No metrics will be sent: STATSD_TYPE must be "
                                             "h or ms, not '") +
                                 type + "'"));
  }
}

TEST_F(MetricsLibraryTest, ARestartedCollectorGetsTheNextSample) {
  std::optional<Collector> collector(std::in_place);
  const uint16_t port = collector->port();
  metrics_.Init();
  collector.reset();
  EXPECT_TRUE(metrics_.SendSparse("lost", 1));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  const base::ScopedFd again(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(bind(again.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  EXPECT_TRUE(metrics_.SendSparse("x", 1));
  char datagram[64];
  EXPECT_EQ(recv(again.get(), datagram, sizeof(datagram), 0), 5);
}

TEST_F(MetricsLibraryTest, AnUnusableAddressIsLoggedOnceAndSamplesAreLost) {
  const base::LogCapture log;
  setenv("STATSD_HOST", "collector.example", 1);
  metrics_.Init();
  EXPECT_FALSE(metrics_.SendSparse("x", 1));
  EXPECT_FALSE(metrics_.SendSparse("x", 2));
  EXPECT_THAT(log.lines(), testing::ElementsAre(testing::StartsWith(
                               "WARNING No metrics will be sent: STATSD_HOST and STATSD_PORT must "
                               "be an address and a port number, not 'collector.example'")));
}

TEST_F(MetricsLibraryTest, AnInvalidPortNumberIsNotTruncated) {
  for (const char* number : {"0", "65536", "99999", "-1", "8125 ", "statsd"}) {
    MetricsLibrary metrics;
    const base::LogCapture log;
    setenv("STATSD_PORT", number, 1);
    metrics.Init();
    EXPECT_FALSE(metrics.SendSparse("x", 1)) << number;
    EXPECT_EQ(log.lines().size(), 1u) << number;
  }
}

TEST_F(MetricsLibraryTest, AnUnreachableCollectorOnlyMakesSendingFail) {
  setenv("STATSD_HOST", "255.255.255.255", 1);  // Broadcasting is not permitted.
  metrics_.Init();
  EXPECT_FALSE(metrics_.SendSparse("x", 1));
}

}  // namespace
