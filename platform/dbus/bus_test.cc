#include "dbus/bus.h"

#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include "dbus/testing/bus_fixture.h"
#include "dbus/testing/fake_service.h"

namespace dbus {
namespace {

constexpr char kName[] = "org.example.Name";

TEST_F(BusTest, AFailedConnectionReportsTheReason) {
  setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
  base::ErrorPtr error;
  EXPECT_FALSE(Bus::ConnectToSystemBus(&error));
  EXPECT_EQ("No such file or directory", error->GetMessage());
}

TEST_F(BusTest, FileDescriptorPassingIsOff) {
  EXPECT_EQ(0, sd_bus_can_send(bus_->connection(), SD_BUS_TYPE_UNIX_FD));
}

TEST_F(BusTest, AFreeNameIsAcquired) {
  base::ErrorPtr error;
  EXPECT_TRUE(bus_->RequestOwnership(kName, &error)) << error->GetMessage();
  EXPECT_TRUE(bus_->RequestOwnership(kName, &error)) << "already owned: " << error->GetMessage();
}

TEST_F(BusTest, RequestingATakenNameFailsWithoutQueueing) {
  FakeService owner(kName);
  base::ErrorPtr error;
  EXPECT_FALSE(bus_->RequestOwnership(kName, &error));
  EXPECT_EQ("The name org.example.Name has another owner", error->GetMessage());
  owner.ReleaseName();
  Settle();
  owner.TakeName();
}

TEST_F(BusTest, AnInvalidNameIsRejected) {
  base::ErrorPtr error;
  EXPECT_FALSE(bus_->RequestOwnership("no name", &error));
  EXPECT_EQ("Invalid argument", error->GetMessage());
}

TEST_F(BusTest, TheLossOfTheBusIsReportedOnceAndDoesNotEndTheLoop) {
  int losses = 0;
  bus_->SetDisconnectedCallback([&losses] { ++losses; });
  Settle();
  EXPECT_EQ(0, losses);
  private_bus_.Stop();
  EXPECT_TRUE(base::RunUntil([&losses] { return losses > 0; }));
  bool posted = false;
  loop_.PostTask([&posted] { posted = true; });
  EXPECT_TRUE(base::RunUntil([&posted] { return posted; }));
  EXPECT_EQ(1, losses);
}

// Counts the messages for a connection that a blocking call reads.
class BacklogTest : public BusTest {
 protected:
  static constexpr uint64_t kMessages = 100;

  uint64_t ReadDuringACall(sd_bus* receiver) {
    FakeService remote(kName);
    const char* name = nullptr;
    EXPECT_GE(sd_bus_get_unique_name(receiver, &name), 0);
    for (uint64_t message = 0; message < kMessages; ++message)
      remote.Emit("/a", kName, "Noise", {}, name);
    // The reply follows all of those on the bus.
    remote.Answer("/a", kName, "Do");
    ObjectProxy* const proxy = bus_->GetObjectProxy(kName, ObjectPath("/a"));
    const auto response = proxy->CallMethodAndBlock(MethodCall(*proxy, kName, "Do"), -1);
    EXPECT_TRUE(response && !response->IsError());
    uint64_t queued = 0;
    EXPECT_GE(sd_bus_get_n_queued_read(receiver, &queued), 0);
    return queued;
  }
};

TEST_F(BacklogTest, ABlockingCallQueuesTheOtherMessagesOfItsConnection) {
  EXPECT_GE(ReadDuringACall(bus_->connection()), kMessages);
}

TEST_F(BacklogTest, ABlockingCallLeavesMessagesToTheServiceWithTheBus) {
  base::ErrorPtr error;
  ASSERT_TRUE(bus_->SeparateService(&error)) << error->GetMessage();
  EXPECT_EQ(ReadDuringACall(bus_->service_connection()), 0u);
}

TEST_F(BusTest, TheServiceNameIsOwnedByTheServiceConnection) {
  base::ErrorPtr error;
  EXPECT_EQ(bus_->connection(), bus_->service_connection());
  ASSERT_TRUE(bus_->SeparateService(&error)) << error->GetMessage();
  EXPECT_NE(bus_->connection(), bus_->service_connection());
  ASSERT_TRUE(bus_->RequestOwnership(kName, &error)) << error->GetMessage();
  const char* name = nullptr;
  ASSERT_GE(sd_bus_get_unique_name(bus_->service_connection(), &name), 0);
  const MethodCall call(*Driver(), "org.freedesktop.DBus", "GetNameOwner");
  MessageWriter(&call).AppendString(kName);
  const auto response = Driver()->CallMethodAndBlock(call, -1);
  ASSERT_TRUE(response && !response->IsError());
  std::string owner;
  EXPECT_TRUE(MessageReader(response.get()).PopString(&owner));
  EXPECT_EQ(name, owner);
}

TEST_F(BusTest, SeparatingTheServiceFailsWithoutABus) {
  setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
  base::ErrorPtr error;
  EXPECT_FALSE(bus_->SeparateService(&error));
  EXPECT_EQ("No such file or directory", error->GetMessage());
}

TEST_F(BusTest, TheLossOfTheServiceConnectionAloneIsReportedOnce) {
  base::ErrorPtr error;
  ASSERT_TRUE(bus_->SeparateService(&error)) << error->GetMessage();
  int losses = 0;
  bus_->SetDisconnectedCallback([&losses] { ++losses; });
  ASSERT_EQ(0, shutdown(sd_bus_get_fd(bus_->service_connection()), SHUT_RDWR));
  ASSERT_TRUE(base::RunUntil([&losses] { return losses > 0; }));
  EXPECT_FALSE(bus_->IsConnected());
  private_bus_.Stop();
  ASSERT_TRUE(base::RunUntil([this] { return sd_bus_is_ready(bus_->connection()) <= 0; }));
  bool posted = false;
  loop_.PostTask([&posted] { posted = true; });
  EXPECT_TRUE(base::RunUntil([&posted] { return posted; }));
  EXPECT_EQ(1, losses);
}

TEST_F(BusTest, MessagesThatTheBusDoesNotReadAreUnsent) {
  EXPECT_FALSE(bus_->HasUnsentMessages());
  private_bus_.Pause();
  ObjectProxy* const proxy = bus_->GetObjectProxy(kName, ObjectPath("/a"));
  while (!bus_->HasUnsentMessages())
    ASSERT_TRUE(proxy->SendOneWay(MethodCall(*proxy, kName, "Do")));
  private_bus_.Resume();
  EXPECT_TRUE(base::RunUntil([this] { return !bus_->HasUnsentMessages(); }));
}

std::atomic<int> g_interruptions = 0;

bool IsAsleep(pid_t thread) {
  std::ifstream stat("/proc/self/task/" + std::to_string(thread) + "/stat");
  std::string text;
  std::getline(stat, text);
  return text.find(") S ") != std::string::npos;
}

class SignalTest : public BusTest {
 protected:
  SignalTest() {
    struct sigaction counting = {};
    counting.sa_handler = [](int /*signal*/) { ++g_interruptions; };
    EXPECT_EQ(0, sigaction(SIGUSR1, &counting, nullptr));
    // sd-bus does not wait while there is input.
    Settle();
    private_bus_.Pause();
  }
  ~SignalTest() override { signal(SIGUSR1, SIG_DFL); }

  // Interrupts the calling thread's next waits, and then resumes the bus.
  std::thread InterruptWaits() {
    return std::thread([this, thread = pthread_self(), thread_id = gettid()] {
      for (int before = g_interruptions, i = 0; i < kInterruptions; ++i, ++before) {
        while (!IsAsleep(thread_id)) std::this_thread::yield();
        pthread_kill(thread, SIGUSR1);
        while (g_interruptions == before) std::this_thread::yield();
      }
      private_bus_.Resume();
    });
  }

  FakeService service_{kName};

 private:
  static constexpr int kInterruptions = 3;
};

TEST_F(SignalTest, AConnectionIsMadeDespiteSignals) {
  std::thread interrupter = InterruptWaits();
  base::ErrorPtr error;
  EXPECT_TRUE(Bus::ConnectToSystemBus(&error)) << error->GetMessage();
  interrupter.join();
}

TEST_F(SignalTest, AClosingConnectionSendsItsMessagesDespiteSignals) {
  ObjectProxy* const proxy = bus_->GetObjectProxy(kName, ObjectPath("/a"));
  int sent = 0;
  for (; !bus_->HasUnsentMessages(); ++sent) {
    MethodCall call(*proxy, kName, "Do");
    MessageWriter(&call).AppendString(std::string(size_t{1} << 20, 'x'));
    ASSERT_TRUE(proxy->SendOneWay(call));
  }
  std::thread interrupter = InterruptWaits();
  bus_.reset();
  interrupter.join();
  EXPECT_TRUE(base::RunUntil([&] { return service_.CallCount("Do") == sent; }));
}

TEST_F(BusTest, AnObjectHasOneProxyAndOneManager) {
  const ObjectPath path("/a");
  EXPECT_EQ(bus_->GetObjectProxy(kName, path), bus_->GetObjectProxy(kName, path));
  EXPECT_NE(bus_->GetObjectProxy(kName, path), bus_->GetObjectProxy(kName, ObjectPath("/b")));
  EXPECT_NE(bus_->GetObjectProxy(kName, path), bus_->GetObjectProxy("org.example.Other", path));
  EXPECT_EQ(bus_->GetObjectManager(kName, path), bus_->GetObjectManager(kName, path));
}

TEST_F(BusTest, TheConnectionIsUsableAfterTheLoopHasRun) {
  FakeService remote(kName);
  remote.Answer("/a", kName, "Do");
  loop_.PostTask([this] { loop_.Quit(3); });
  EXPECT_EQ(3, loop_.Run());
  ObjectProxy* const proxy = bus_->GetObjectProxy(kName, ObjectPath("/a"));
  const auto response = proxy->CallMethodAndBlock(MethodCall(*proxy, kName, "Do"), -1);
  ASSERT_TRUE(response);
  EXPECT_FALSE(response->IsError());
  bus_.reset();
}

}  // namespace
}  // namespace dbus
