// A client, a fake daemon and a private bus.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <memory>
#include <string>
#include <vector>

#include "dbus/testing/fake_service.h"
#include "dbus/testing/private_bus.h"
#include "pelmor/client.h"

namespace pelmor {

inline constexpr char kService[] = "org.quintara.ap.Pelmor";
inline constexpr char kPath[] = "/org/quintara/ap/Pelmor/Manager";
inline constexpr char kInterface[] = "org.quintara.ap.Pelmor.Manager";
inline constexpr const char* kMethods[] = {"RecordMetric", "RecordStructuredData",
                                           "RecordOfflineData"};
inline constexpr Timeout kShort{50};
inline constexpr int kLongMs = 10000;

inline bool IsReadable(const Client& client, int timeout_ms = 0) {
  pollfd polled = {client.PollFd(), POLLIN, 0};
  return poll(&polled, 1, timeout_ms) == 1;
}

// Acts as the caller's event loop until `count` callbacks have run.
inline void ProcessUntil(Client* client, const std::vector<Status>& done, size_t count) {
  while (done.size() < count) {
    ASSERT_TRUE(IsReadable(*client, kLongMs)) << "after " << done.size() << " callbacks";
    client->Process();
  }
}

class FakeDaemon : public dbus::FakeService {
 public:
  FakeDaemon() : dbus::FakeService(kService) {
    for (const char* const method : kMethods) dbus::FakeService::Answer(kPath, kInterface, method);
  }
  void Refuse(const std::string& error_name) {
    dbus::FakeService::Refuse(kPath, kInterface, "RecordMetric", error_name, "No");
  }
  void AnswerAll() { dbus::FakeService::AnswerAll(kPath, kInterface, "RecordMetric"); }
  void LeaveUnanswered() { dbus::FakeService::LeaveUnanswered(kPath, kInterface, "RecordMetric"); }
};

class ClientTest : public ::testing::Test {
 protected:
  Status Record() { return client_->RecordMetric("up", {}, true); }
  void RecordAsync(Timeout timeout = kDefaultTimeout) {
    const auto done = [this](const Status& status) { done_.push_back(status); };
    EXPECT_TRUE(client_->RecordMetricAsync("up", {}, true, done, timeout).ok());
  }
  StatusCode OnlyCode() {
    ProcessUntil(client_.get(), done_, 1);
    return done_.size() == 1 ? done_[0].code() : StatusCode::kOk;
  }
  void RestartBus() {
    bus_.reset();
    bus_ = std::make_unique<dbus::PrivateBus>();
  }

  std::unique_ptr<dbus::PrivateBus> bus_ = std::make_unique<dbus::PrivateBus>();
  std::unique_ptr<FakeDaemon> daemon_ = std::make_unique<FakeDaemon>();
  std::unique_ptr<Client> client_ = std::make_unique<Client>();
  std::vector<Status> done_;
};

}  // namespace pelmor
