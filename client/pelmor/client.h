// Sends records to the telemetry daemon of this access point, over the system bus.
//
//   pelmor::Client client;
//   const pelmor::Status status =
//       client.RecordMetric("ap/radio/utilization", {{"band", "5g"}}, 0.25);
//   if (!status.ok()) std::cerr << status.message() << '\n';
//
// Success means that the daemon received the record, not that the cloud will: the daemon drops
// records without notice while the device is not provisioned or its clock is not set, and the
// oldest ones when its store is full.
//
// There are three ways to record:
//   RecordMetric(…)             waits for the daemon's reply. For a record now and then.
//   RecordMetricAsync(…, done)  the same without waiting: `done` gets the result.
//   RecordMetricAsync(…)        one-way, without a reply: costs daemon and bus a third. For many
//                               records: they are confirmed together, and `Flush` waits for it.
//
// Flow control: the system bus rejects calls of a connection that has 128 pending replies, so a
// client limits them. At most `kWindowRecords` calls that request a reply are in flight. Of one-way
// records, at least each `kWindowRecords`-th requests a reply, which confirms all before it, and at
// most two such windows are unconfirmed. So no number of records can pile up in the bus, and a
// client notices within a window that the daemon left the bus. Further records are queued in this
// process, and sent by later calls on the client, mainly by `Process` when replies have arrived. If
// the queue is full, a call without a reply waits or returns `kBusy`; see `Client::Client`.
//
// Order: records reach the daemon in the order of the calls, of all kinds. A lost record leaves a
// gap and changes no order.
//
// Loss: while the daemon runs and the connection lasts, no accepted record is lost on its way. A
// record with a callback reports its own result. One-way records that were not confirmed count in
// `LostRecords`; some of them may have arrived. These are
//   - if the daemon leaves the bus: up to two windows, and later ones until it is back. The client
//     stays connected, and reaches the next daemon;
//   - if the bus is restarted or drops the connection: up to two windows, and the queue. The next
//     call reconnects;
//   - if the bus rejects a record: that record, or its window if the record requested a reply.
//
// Permission: the bus policy admits root and the members of the group pelmor.
//
// Threads: a client is not locked. Use one client per thread, or hold a lock around each call.
//
// Connection: the first call opens it. If it is lost, the next call opens another; if the daemon
// was restarted, the next call reaches the new one.
//
// Errors are returned as a `Status`. Nothing throws, and callbacks must not throw.
//
// Retries: none are made. After `kNotConnected`, `kNoDaemon` or `kTimedOut` the daemon may or may
// not have received the record, so a retry can record it twice.
//
// fork(): a client does not work in the child process. Each record there fails with
// `kNotConnected`, and `Process` there can delay the callbacks of the parent.
//
// Requires C++17. Link with `pkg-config --cflags --libs pelmor-client`, or in CMake with
// pelmor::client from `find_package(pelmor-client CONFIG)`.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace pelmor {

enum class StatusCode {
  kOk,
  // Not sent: a text is not UTF-8 or contains a zero byte or a Unicode noncharacter, which the bus
  // library does not send, or the record exceeds `kMaxRecordBytes`.
  kInvalidArgument,
  // The system bus can't be reached, or the connection was lost during the call.
  kNotConnected,
  // The daemon is not on the bus, or left it before it replied.
  kNoDaemon,
  // The bus policy does not allow this process to call the daemon.
  kRefused,
  // No reply within the call's timeout.
  kTimedOut,
  // Any other error reply; see `error_name`.
  kFailed,
  // The queue is full. The record was not accepted.
  kBusy,
};

class [[nodiscard]] Status {
 public:
  // Success.
  Status() = default;
  Status(StatusCode code, std::string error_name, std::string message)
      : code_(code), error_name_(std::move(error_name)), message_(std::move(message)) {}

  [[nodiscard]] bool ok() const { return code_ == StatusCode::kOk; }
  [[nodiscard]] StatusCode code() const { return code_; }
  // The D-Bus name of the error, "org.freedesktop.DBus.Error.…"; empty on success.
  [[nodiscard]] const std::string& error_name() const { return error_name_; }
  // An English text for logs and users; empty on success.
  [[nodiscard]] const std::string& message() const { return message_; }

 private:
  StatusCode code_ = StatusCode::kOk;
  std::string error_name_;
  std::string message_;
};

// A metric's value: a boolean, a 64-bit signed integer, a double or a text. Converts implicitly
// from these and from smaller number types. An unsigned 64-bit integer does not compile, since it
// may not fit.
class Value {
 public:
  using Held = std::variant<bool, std::int64_t, double, std::string>;

  template <typename Number, typename = std::enable_if_t<std::is_arithmetic_v<Number>>>
  // NOLINTBEGIN(google-explicit-constructor): a plain value can be passed as a `Value`.
  Value(Number number) : held_(Convert(number)) {}
  Value(std::string text) : held_(std::move(text)) {}
  Value(const char* text) : held_(std::string(text)) {}
  // NOLINTEND(google-explicit-constructor)
  Value(std::nullptr_t) = delete;

  [[nodiscard]] const Held& held() const { return held_; }

 private:
  template <typename Number>
  static auto Convert(Number number) {
    if constexpr (std::is_same_v<Number, bool>) {
      return number;
    } else if constexpr (std::is_integral_v<Number>) {
      static_assert(sizeof(Number) < sizeof(std::int64_t) || std::is_signed_v<Number>,
                    "may not fit into a signed 64-bit integer: convert it explicitly");
      return static_cast<std::int64_t>(number);
    } else {
      return static_cast<double>(number);
    }
  }

  Held held_;
};

using Labels = std::map<std::string, std::string>;
using Bytes = std::vector<std::uint8_t>;

// The largest record: the bytes of its texts and data, plus `kLabelBytes` for each label. It leaves
// room for the encoding below D-Bus's limit of 64 MiB for an array. A bus can have a lower limit
// for messages (32 MiB is usual); it then disconnects the sender, and the call fails with
// `kNotConnected`.
inline constexpr std::size_t kMaxRecordBytes = std::size_t{60} * 1024 * 1024;
inline constexpr std::size_t kLabelBytes = 32;

// A window of one-way records ends with the record that requests a reply: after so many records, or
// so many bytes, counted as for `kMaxRecordBytes`.
inline constexpr std::size_t kWindowRecords = 64;
inline constexpr std::size_t kWindowBytes = std::size_t{256} * 1024;
// The queue accepts a record, of any size, while it has fewer records and fewer bytes.
inline constexpr std::size_t kMaxQueuedRecords = 1024;
inline constexpr std::size_t kMaxQueuedBytes = std::size_t{4} * 1024 * 1024;

// How long a call waits for the daemon's reply. Less than 1 ms counts as 1 ms.
using Timeout = std::chrono::milliseconds;
inline constexpr Timeout kDefaultTimeout{5000};
// Does not wait for room in the queue.
inline constexpr Timeout kNoWait{0};

class Client {
 public:
  // Runs exactly once per accepted record, from `Process`, never from within the call; not at all
  // if the client is destroyed first. It may use the client, and may destroy it. Null: the record
  // is sent one-way.
  using Callback = std::function<void(const Status&)>;

  // Does not connect yet. Aborts the process if no file descriptor is available.
  //
  // A call that does not wait for a reply waits at most `queue_wait` for room in a full queue, and
  // then returns `kBusy`.
  explicit Client(Timeout queue_wait = kNoWait);
  // Sends the queued records one-way, and waits until the bus has read them, but not for the
  // daemon: call `Flush` first to learn their result. Pending callbacks do not run.
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // Connects to the system bus unless connected. Optional: it reports early that the bus can't be
  // reached, and blocks until the bus has authenticated this process. The daemon need not run.
  Status Connect();

  // The next three block until the daemon replies, for `timeout` at most.
  //
  // Records a point of the metric `name`, with the current time. `labels` distinguish the points of
  // one metric.
  Status RecordMetric(const std::string& name, const Labels& labels, const Value& value,
                      Timeout timeout = kDefaultTimeout);
  // Records an entry of the structured log, encoded as the type that `type_url` names.
  Status RecordStructuredData(const std::string& type_url, const Bytes& data,
                              Timeout timeout = kDefaultTimeout);
  // Records opaque data, which are uploaded unchanged. `type_url` names their type.
  Status RecordOfflineData(const std::string& type_url, const Bytes& data,
                           Timeout timeout = kDefaultTimeout);

  // The same without waiting for the reply; they block to connect, and for `queue_wait`. Success
  // means that the record was accepted: it was sent or queued. Otherwise `done` never runs.
  //
  // With `done`, the daemon's reply is expected within `timeout`, which includes the time in the
  // queue. A record whose time ends in the queue is not sent.
  Status RecordMetricAsync(const std::string& name, const Labels& labels, const Value& value,
                           Callback done = nullptr, Timeout timeout = kDefaultTimeout);
  Status RecordStructuredDataAsync(const std::string& type_url, const Bytes& data,
                                   Callback done = nullptr, Timeout timeout = kDefaultTimeout);
  Status RecordOfflineDataAsync(const std::string& type_url, const Bytes& data,
                                Callback done = nullptr, Timeout timeout = kDefaultTimeout);

  // Blocks until every record accepted so far, of any kind, was processed by the daemon or failed.
  // Runs no callbacks. `kTimedOut`: not within `timeout`; the records remain on their way. Any
  // other failure is that of the last one-way record that was lost since the previous `Flush` or,
  // if none was lost, means that the daemon can't be asked; some may then remain on their way.
  Status Flush(Timeout timeout = kDefaultTimeout);
  // The number of one-way records that were accepted and not confirmed, since the client exists.
  // Does not count those whose confirmation is still expected.
  [[nodiscard]] std::uint64_t LostRecords() const;

  // A file descriptor for the caller's event loop: call `Process` when it is readable. It becomes
  // readable for replies, timeouts, due callbacks and when queued records can be sent, so the loop
  // needs no timer. The client owns it and keeps it for its whole life, also across reconnections;
  // do not read or close it.
  [[nodiscard]] int PollFd() const;
  // Reads what has arrived, sends queued records and runs the due callbacks. Does not block.
  void Process();

 private:
  class Impl;

  const std::shared_ptr<Impl> impl_;
};

}  // namespace pelmor
