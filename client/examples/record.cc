// Records a metric, a structured and an offline log through libpelmor-client.
//
//   c++ -std=c++17 record.cc $(pkg-config --cflags --libs pelmor-client) -o record
//
// Each call waits for its reply. With many records, use RecordMetricAsync without a callback, and
// Flush.
#include <pelmor/client.h>

#include <cstdlib>
#include <iostream>
#include <string>

namespace {

constexpr char kType[] = "type.example/ap.Example";

pelmor::Bytes BytesOf(const std::string& text) { return {text.begin(), text.end()}; }

// Prints why the record was not sent, if so.
bool Succeeded(const pelmor::Status& status) {
  if (status.code() == pelmor::StatusCode::kNoDaemon)
    std::cerr << "record: the telemetry daemon is not running: " << status.message() << '\n';
  else if (!status.ok())
    std::cerr << "record: " << status.message() << " (" << status.error_name() << ")\n";
  return status.ok();
}

}  // namespace

int main() {
  pelmor::Client client;
  const bool recorded =
      Succeeded(client.RecordMetric("example/utilization", {{"band", "5g"}, {"language", "c++"}},
                                    0.25)) &&
      Succeeded(client.RecordStructuredData(kType, BytesOf("structured from c++"))) &&
      Succeeded(client.RecordOfflineData(kType, BytesOf("offline from c++")));
  if (!recorded) return EXIT_FAILURE;
  std::cout << "Recorded\n";
  return EXIT_SUCCESS;
}
