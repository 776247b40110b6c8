// Calls RecordMetric of a service, with two labels and a double, and prints the latencies as JSON.
//
//   caller NAME sync COUNT             one call at a time
//   caller NAME flight COUNT DEPTH     up to DEPTH calls in flight
//   caller NAME rate PER_SECOND COUNT  PER_SECOND calls per second, if the service keeps up
//   caller NAME until FILE             one call at a time, until FILE exists
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "bus.h"

namespace {

using Clock = std::chrono::steady_clock;
using Microseconds = std::chrono::duration<double, std::micro>;

// The bus limits a connection to 128 pending replies.
constexpr int kMostInFlight = 64;

class Caller {
 public:
  explicit Caller(const char* service) : service_(service) {
    bench::Check(sd_bus_open_system(&bus_), "bus");
  }
  ~Caller() { sd_bus_flush_close_unref(bus_); }
  Caller(const Caller&) = delete;
  Caller& operator=(const Caller&) = delete;

  void CallSync() {
    sd_bus_message* const call = NewCall();
    sd_bus_message* reply = nullptr;
    const Clock::time_point sent = Clock::now();
    bench::Check(sd_bus_call(bus_, call, 0, nullptr, &reply), "call");
    latencies_.push_back(Microseconds(Clock::now() - sent).count());
    sd_bus_message_unref(reply);
    sd_bus_message_unref(call);
  }

  void CallAsync() {
    sd_bus_message* const call = NewCall();
    sent_.push_back(Clock::now());
    bench::Check(sd_bus_call_async(bus_, nullptr, call, &Caller::OnReply, this, 0), "call");
    sd_bus_message_unref(call);
    ++in_flight_;
  }

  // Receives replies while `depth` or more calls are in flight.
  void AwaitFewerThan(int depth) {
    while (in_flight_ >= depth) bench::ProcessOrWait(bus_);
  }
  // Receives replies until `due`.
  void AwaitTime(Clock::time_point due) {
    for (Clock::duration left = due - Clock::now(); left > Clock::duration::zero();
         left = due - Clock::now())
      bench::ProcessOrWait(bus_, static_cast<uint64_t>(Microseconds(left).count()));
  }

  std::vector<double> TakeLatencies() { return std::move(latencies_); }

 private:
  sd_bus_message* NewCall() {
    sd_bus_message* call = nullptr;
    bench::Check(sd_bus_message_new_method_call(bus_, &call, service_, bench::kManagerPath,
                                                bench::kManagerInterface, bench::kRecordMetric),
                 "message");
    bench::Check(sd_bus_message_append(call, bench::kRecordMetricSignature, "ap/radio/utilization",
                                       2, "band", "5g", "radio", "radio-0", "d", 0.25),
                 "arguments");
    return call;
  }

  // Replies arrive in the order of the calls.
  static int OnReply(sd_bus_message* reply, void* caller, sd_bus_error* /*error*/) {
    auto* const self = static_cast<Caller*>(caller);
    if (sd_bus_message_is_method_error(reply, nullptr) > 0)
      bench::Fail("reply", sd_bus_message_get_error(reply)->name);
    const Clock::time_point sent = self->sent_[self->latencies_.size()];
    self->latencies_.push_back(Microseconds(Clock::now() - sent).count());
    --self->in_flight_;
    return 0;
  }

  const char* const service_;
  sd_bus* bus_ = nullptr;
  int in_flight_ = 0;
  std::vector<Clock::time_point> sent_;
  std::vector<double> latencies_;
};

void CallInFlight(Caller* caller, long count, int depth) {
  for (long call = 0; call < count; ++call) {
    caller->AwaitFewerThan(depth);
    caller->CallAsync();
  }
  caller->AwaitFewerThan(1);
}

void CallAtRate(Caller* caller, double per_second, long count) {
  const Clock::time_point start = Clock::now();
  for (long call = 0; call < count; ++call) {
    const auto due =
        start + std::chrono::duration_cast<Clock::duration>(
                    std::chrono::duration<double>(static_cast<double>(call) / per_second));
    caller->AwaitTime(due);
    caller->AwaitFewerThan(kMostInFlight);
    caller->CallAsync();
  }
  caller->AwaitFewerThan(1);
}

double Percentile(const std::vector<double>& sorted, double share) {
  const auto rank = static_cast<size_t>(share * static_cast<double>(sorted.size()));
  return sorted[std::min(rank, sorted.size() - 1)];
}

void Print(std::vector<double> latencies, double seconds) {
  if (latencies.empty()) bench::Fail("caller", "no call was made");
  std::sort(latencies.begin(), latencies.end());
  printf("{\"calls\": %zu, \"seconds\": %.6f, \"p50\": %.2f, \"p99\": %.2f, \"max\": %.2f}\n",
         latencies.size(), seconds, Percentile(latencies, 0.5), Percentile(latencies, 0.99),
         latencies.back());
}

void Run(Caller* caller, const std::string& mode, char** arguments) {
  if (mode == "sync") {
    for (long call = 0; call < atol(arguments[0]); ++call) caller->CallSync();
  } else if (mode == "until") {
    while (access(arguments[0], F_OK) != 0) caller->CallSync();
  } else if (mode == "flight") {
    CallInFlight(caller, atol(arguments[0]), std::min(atoi(arguments[1]), kMostInFlight));
  } else if (mode == "rate") {
    CallAtRate(caller, atof(arguments[0]), atol(arguments[1]));
  } else {
    bench::Fail("caller", "unknown mode");
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4 || argc > 5) bench::Fail("usage", "caller NAME MODE ARGUMENT...");
  Caller caller(argv[1]);
  const Clock::time_point start = Clock::now();
  Run(&caller, argv[2], argv + 3);
  const std::chrono::duration<double> seconds = Clock::now() - start;
  Print(caller.TakeLatencies(), seconds.count());
}
