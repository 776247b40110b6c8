#include "kestle/http/socket_watch.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/scoped_fd.h"
#include "base/testing/run_until.h"

namespace kestle::http {
namespace {

class SocketWatchTest : public testing::Test {
 protected:
  SocketWatchTest() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    socket_ = base::ScopedFd(ends[0]);
    peer_ = base::ScopedFd(ends[1]);
  }
  void SendFromPeer() { EXPECT_EQ(write(peer_.get(), "x", 1), 1); }
  void EndLoop() {
    loop_.Quit(0);
    loop_.Run();
  }

  base::MessageLoop loop_;
  base::ScopedFd socket_;
  base::ScopedFd peer_;
  int calls_ = 0;
  curl_socket_t ready_socket_ = CURL_SOCKET_BAD;
  int ready_ = 0;
  SocketWatch watch_{&loop_, [this](curl_socket_t fd, int ready) {
                       ++calls_;
                       ready_socket_ = fd;
                       ready_ = ready;
                     }};
};

TEST_F(SocketWatchTest, ReportsTheSocketAndItsEvents) {
  watch_.Set(socket_.get(), CURL_POLL_OUT);
  ASSERT_TRUE(base::RunUntil([&] { return calls_ != 0; }));
  EXPECT_EQ(ready_socket_, socket_.get());
  EXPECT_EQ(ready_, CURL_CSELECT_OUT);
  SendFromPeer();
  watch_.Set(socket_.get(), CURL_POLL_INOUT);
  ASSERT_TRUE(base::RunUntil([&] { return ready_ == (CURL_CSELECT_IN | CURL_CSELECT_OUT); }));
  watch_.Set(socket_.get(), CURL_POLL_IN);
  ASSERT_TRUE(base::RunUntil([&] { return ready_ == CURL_CSELECT_IN; }));
}

TEST_F(SocketWatchTest, AHangUpAloneReportsNoEvent) {
  watch_.Set(socket_.get(), CURL_POLL_NONE);
  ready_ = -1;
  peer_ = base::ScopedFd();
  ASSERT_TRUE(base::RunUntil([&] { return calls_ != 0; }));
  EXPECT_EQ(ready_, 0);
}

TEST_F(SocketWatchTest, ARemovedSocketIsNotWatched) {
  watch_.Set(socket_.get(), CURL_POLL_IN);
  watch_.Set(socket_.get(), CURL_POLL_REMOVE);
  watch_.Set(socket_.get(), CURL_POLL_REMOVE);
  SendFromPeer();
  loop_.RunOnce(base::TimeDelta());
  watch_.Set(socket_.get(), CURL_POLL_IN);
  watch_.Clear();
  loop_.RunOnce(base::TimeDelta());
  EXPECT_EQ(calls_, 0);
}

// The next socket reuses the number.
TEST_F(SocketWatchTest, ASocketThatReusesARemovedDescriptorIsWatched) {
  watch_.Set(socket_.get(), CURL_POLL_IN);
  watch_.Set(socket_.get(), CURL_POLL_REMOVE);
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const base::ScopedFd other(ends[0]);
  peer_ = base::ScopedFd(ends[1]);
  ASSERT_EQ(dup3(other.get(), socket_.get(), O_CLOEXEC), socket_.get());
  watch_.Set(socket_.get(), CURL_POLL_IN);
  SendFromPeer();
  EXPECT_TRUE(base::RunUntil([&] { return calls_ != 0; }));
}

TEST_F(SocketWatchTest, SocketsMayBeAddedAfterTheEndOfTheLoop) {
  EndLoop();
  for (const int what : {CURL_POLL_IN, CURL_POLL_OUT, CURL_POLL_INOUT, CURL_POLL_REMOVE})
    watch_.Set(socket_.get(), what);
  EXPECT_EQ(calls_, 0);
}

TEST_F(SocketWatchTest, SocketsMayBeChangedAndRemovedAfterTheEndOfTheLoop) {
  watch_.Set(socket_.get(), CURL_POLL_IN);
  watch_.Set(peer_.get(), CURL_POLL_IN);
  EndLoop();
  watch_.Set(socket_.get(), CURL_POLL_INOUT);
  watch_.Set(peer_.get(), CURL_POLL_REMOVE);
  watch_.Clear();
  EXPECT_EQ(calls_, 0);
}

TEST_F(SocketWatchTest, ACallbackMayRemoveItsSocket) {
  SocketWatch* target = nullptr;
  int calls = 0;
  SocketWatch watch(&loop_, [&](curl_socket_t fd, int) {
    ++calls;
    target->Set(fd, CURL_POLL_REMOVE);
  });
  target = &watch;
  watch.Set(socket_.get(), CURL_POLL_OUT);
  ASSERT_TRUE(base::RunUntil([&] { return calls != 0; }));
  loop_.RunOnce(base::TimeDelta());
  EXPECT_EQ(calls, 1);
}

}  // namespace
}  // namespace kestle::http
