// Times parts of the daemon: writing requests of several sizes, next to the baseline; encoding a
// value, as is done for each recorded point; and encoding a log.
#include <benchmark/benchmark.h>

#include "ap/pelmor/typed_value.h"
#include "ap/pelmor/web_safe_base64.h"
#include "process/points.h"

namespace {

template <auto write>
void WriteRequest(benchmark::State& state) {
  const auto points = bench::MakePoints(static_cast<size_t>(state.range(0)));
  const varelnos::ap::PointsByName groups = bench::Group(points);
  for ([[maybe_unused]] auto _ : state) benchmark::DoNotOptimize(write(groups, bench::kStartTime));
}

void EncodeDouble(benchmark::State& state) {
  const kestle::Any value = 0.25;
  for ([[maybe_unused]] auto _ : state) {
    base::DictionaryValue out;
    varelnos::ap::EncodeTypedValue(value, &out);
    benchmark::DoNotOptimize(out);
  }
}

void EncodeLog(benchmark::State& state) {
  const std::string data(static_cast<size_t>(state.range(0)), 'x');
  for ([[maybe_unused]] auto _ : state)
    benchmark::DoNotOptimize(varelnos::ap::WebSafeBase64Encode(data));
}

}  // namespace

BENCHMARK(WriteRequest<&bench::WriteAsDaemon>)->Name("json/daemon")->Arg(10)->Arg(1000);
BENCHMARK(WriteRequest<&bench::WriteAsStream>)->Name("json/stream")->Arg(10)->Arg(1000);
BENCHMARK(EncodeDouble)->Name("value/double");
BENCHMARK(EncodeLog)->Name("log/base64")->Arg(1024)->Arg(65536);
BENCHMARK_MAIN();
