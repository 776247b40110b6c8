#include "ap/pelmor/daemon_status.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

namespace varelnos::ap {
namespace {

using testing::EndsWith;
using testing::HasSubstr;

constexpr base::Time kTime = base::Time::FromTimeT(1700000000);

TEST(DaemonStatus, OfAFreshDaemonIsAllZeros) {
  EXPECT_EQ(FormatStatus({}),
            "points recorded=0 accepted=0 pending=0 in_flight=0 no_token=0 no_network_time=0 "
            "too_old=0 over_limit=0 rejected=0 pushed_out=0; "
            "logs recorded=0 accepted=0 pending=0 in_flight=0 no_token=0 no_network_time=0 "
            "too_old=0 over_limit=0 rejected=0 pushed_out=0; "
            "gates refresh_token=no access_token=no network_time=no registered=unknown; "
            "ticks count=0");
}

TEST(DaemonStatus, ShowsEveryItem) {
  DaemonStatus status;
  status.upload.points = {10, 1, 2, 3, {1, 0, 0, 2, 1, 0}, kTime};
  status.upload.logs = {3, 1, 0, 0, {0, 0, 0, 0, 0, 2}, {}};
  status.upload.registration = Registration::kRegistered;
  status.upload.metrics = {kTime, 500, ""};
  status.upload.log = {kTime, 0, "no route"};
  status.token = {kTime, 401, "invalid_client"};
  status.refresh_token = status.access_token = status.network_time = true;
  status.tick_count = 7;
  status.last_tick = kTime;
  EXPECT_EQ(FormatStatus(status),
            "points recorded=10 accepted=1 pending=2 in_flight=3 no_token=1 no_network_time=0 "
            "too_old=0 over_limit=2 rejected=1 pushed_out=0 dropped_at=1700000000; "
            "logs recorded=3 accepted=1 pending=0 in_flight=0 no_token=0 no_network_time=0 "
            "too_old=0 over_limit=0 rejected=0 pushed_out=2; "
            "gates refresh_token=yes access_token=yes network_time=yes registered=yes; "
            "ticks count=7 time=1700000000; metrics time=1700000000 status=500; "
            "log time=1700000000 error=\"no route\"; "
            "token time=1700000000 status=401 error=\"invalid_client\"");
}

TEST(DaemonStatus, UnregisteredDiffersFromUnknown) {
  DaemonStatus status;
  status.upload.registration = Registration::kUnregistered;
  EXPECT_THAT(FormatStatus(status), HasSubstr("registered=no;"));
}

TEST(DaemonStatus, TheTextOfAnErrorStaysInsideItsQuotes) {
  DaemonStatus status;
  status.token = {kTime, 0, "a\n\"b\"\\; \x1b[1m\xc2\x9b\xff c\x7f"};
  EXPECT_THAT(FormatStatus(status), EndsWith("error=\"a??b??; ?[1m??? c?\""));
}

TEST(DaemonStatus, ItsLengthIsBounded) {
  // The limit of systemd for a notification, without the variable's name.
  constexpr size_t kMostBytes = 4096 - 7;
  constexpr uint64_t kMost = UINT64_MAX;
  const std::string text(100'000, '\n');
  const base::Time last = base::Time::FromInternalValue(INT64_MIN);
  DaemonStatus status;
  status.upload.points = {kMost, kMost, kMost, kMost, {}, last};
  std::fill_n(status.upload.points.dropped.begin(), kDropReasonCount, kMost);
  status.upload.logs = status.upload.points;
  status.upload.metrics = status.upload.log = status.token = {last, INT32_MAX, text};
  status.tick_count = kMost;
  status.last_tick = last;
  EXPECT_LT(FormatStatus(status).size(), kMostBytes);
}

}  // namespace
}  // namespace varelnos::ap
