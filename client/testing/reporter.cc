// A reporter for the benchmark and the tests: records numbered points one-way, with two labels, and
// prints as JSON what became of them.
//
//   reporter COUNT PER_SECOND QUEUE_WAIT_MS FLUSH_MS
//
// With 0 per second it records as fast as the client accepts them. A point that the client rejects
// as busy is not recorded again.
#include <pelmor/client.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

struct Counts {
  long accepted = 0;
  long busy = 0;
};

[[noreturn]] void Fail(const pelmor::Status& status) {
  std::fprintf(stderr, "reporter: %s\n", status.message().c_str());
  std::exit(EXIT_FAILURE);
}

Counts Record(pelmor::Client* client, long count, double per_second) {
  const pelmor::Labels labels = {{"band", "5g"}, {"radio", "radio-0"}};
  const Clock::time_point start = Clock::now();
  Counts counts;
  for (long number = 0; number < count; ++number) {
    if (per_second > 0) {
      const std::chrono::duration<double> due(static_cast<double>(number) / per_second);
      std::this_thread::sleep_until(start + std::chrono::duration_cast<Clock::duration>(due));
    }
    const pelmor::Status status = client->RecordMetricAsync("ap/radio/utilization", labels,
                                                            0.25 * static_cast<double>(number));
    if (status.ok())
      ++counts.accepted;
    else if (status.code() == pelmor::StatusCode::kBusy)
      ++counts.busy;
    else
      Fail(status);
  }
  return counts;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) return EXIT_FAILURE;
  pelmor::Client client{pelmor::Timeout(std::atol(argv[3]))};
  const Clock::time_point start = Clock::now();
  const Counts counts = Record(&client, std::atol(argv[1]), std::atof(argv[2]));
  const pelmor::Status flushed = client.Flush(pelmor::Timeout(std::atol(argv[4])));
  const std::chrono::duration<double> seconds = Clock::now() - start;
  std::printf(R"({"accepted": %ld, "busy": %ld, "lost": %llu, "flush": "%s", "seconds": %.3f})"
              "\n",
              counts.accepted, counts.busy, static_cast<unsigned long long>(client.LostRecords()),
              flushed.error_name().c_str(), seconds.count());
}
