// Hands records to the telemetry daemon of this access point.
//
//   pelmor::Client client;
//   const pelmor::Status status =
//       client.RecordMetric("ap/radio/utilization", {{"band", "5g"}}, 0.25);
//   if (!status.ok()) std::cerr << status.message() << '\n';
//
// Success means that the daemon has the record. It still drops it, and says nothing, while it may
// not upload (the device is not provisioned, or its clock not set yet) or when there are too many.
//
// Threads: any, but one at a time. Give each thread a client of its own, or lock around one.
//
// Connection: made by the first call that needs it, and made anew by the next call after it was
// lost. The daemon may come and go: a call reaches the one that is there. Nothing is repeated by
// itself: when a call fails with `kNotConnected`, `kNoDaemon` or `kTimedOut` on its way, its record
// may have arrived or not, and whether to try again is the caller's to say. A client is of no use
// in a child after fork(): every call there fails with `kNotConnected`.
//
// Errors come by value; nothing throws, and no callback may throw.
//
// Needs C++17. Link with what `pkg-config --libs pelmor-client` says, or with CMake's target
// pelmor::client of `find_package(pelmor-client CONFIG)`.
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
  // The record can't be sent: a text is not UTF-8 or holds a zero byte, or it is all too large.
  kInvalidArgument,
  // There is no bus, or it went away.
  kNotConnected,
  // There is no daemon on the bus, or it went away before it answered.
  kNoDaemon,
  // The bus's policy does not let this process call the daemon.
  kRefused,
  kTimedOut,
  // Any other error; `error_name` tells.
  kFailed,
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
  // For people; empty on success.
  [[nodiscard]] const std::string& message() const { return message_; }

 private:
  StatusCode code_ = StatusCode::kOk;
  std::string error_name_;
  std::string message_;
};

// What a metric measured: a boolean, an integer, a floating-point number or a text. Plain values
// convert by themselves, integers to 64 signed bits (a type that may not fit does not compile).
class Value {
 public:
  using Held = std::variant<bool, std::int64_t, double, std::string>;

  template <typename Number, typename = std::enable_if_t<std::is_arithmetic_v<Number>>>
  Value(Number number) : held_(Convert(number)) {}       // NOLINT(google-explicit-constructor)
  Value(std::string text) : held_(std::move(text)) {}    // NOLINT(google-explicit-constructor)
  Value(const char* text) : held_(std::string(text)) {}  // NOLINT(google-explicit-constructor)
  Value(std::nullptr_t) = delete;

  [[nodiscard]] const Held& held() const { return held_; }

 private:
  template <typename Number>
  static auto Convert(Number number) {
    if constexpr (std::is_same_v<Number, bool>) {
      return number;
    } else if constexpr (std::is_integral_v<Number>) {
      static_assert(sizeof(Number) < sizeof(std::int64_t) || std::is_signed_v<Number>,
                    "may not fit into 64 signed bits: convert it yourself");
      return static_cast<std::int64_t>(number);
    } else {
      return static_cast<double>(number);
    }
  }

  Held held_;
};

using Labels = std::map<std::string, std::string>;
using Bytes = std::vector<std::uint8_t>;

// Texts and data of one record together, each label counted as `kLabelBytes` more than its texts.
// The bus may allow less, and then ends the connection: `kNotConnected`.
inline constexpr std::size_t kMaxRecordBytes = std::size_t{60} * 1024 * 1024;
inline constexpr std::size_t kLabelBytes = 32;

// How long a call waits for the daemon. From 1 ms on.
using Timeout = std::chrono::milliseconds;
inline constexpr Timeout kDefaultTimeout{5000};

class Client {
 public:
  // Told once how the call went, from `Process`, never from the call itself. May make calls of the
  // client, and may destroy it. May be null.
  using Callback = std::function<void(const Status&)>;

  // Does not connect yet. A process without any file descriptor left is aborted.
  Client();
  // Sends what is waiting to be sent. No callback runs any more.
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // Connects to the system bus unless connected, to know early; every call below does the same.
  // Holds the thread until the bus lets us in, usually at once; it says nothing of the daemon.
  Status Connect();

  // These hold the thread until the daemon has answered, `timeout` at most.
  //
  // A point of a metric, at the present time. The labels tell points of one name apart.
  Status RecordMetric(const std::string& name, const Labels& labels, const Value& value,
                      Timeout timeout = kDefaultTimeout);
  // An entry of the structured log, in the encoding of the type that `type_url` names.
  Status RecordStructuredData(const std::string& type_url, const Bytes& data,
                              Timeout timeout = kDefaultTimeout);
  // An opaque blob, uploaded as it is.
  Status RecordOfflineData(const std::string& type_url, const Bytes& data,
                           Timeout timeout = kDefaultTimeout);

  // The same without waiting (but for a connection). Records arrive in the order of the calls.
  void RecordMetricAsync(const std::string& name, const Labels& labels, const Value& value,
                         Callback done = nullptr, Timeout timeout = kDefaultTimeout);
  void RecordStructuredDataAsync(const std::string& type_url, const Bytes& data,
                                 Callback done = nullptr, Timeout timeout = kDefaultTimeout);
  void RecordOfflineDataAsync(const std::string& type_url, const Bytes& data,
                              Callback done = nullptr, Timeout timeout = kDefaultTimeout);

  // For the caller's own loop (poll, epoll or any other): when this descriptor is readable, call
  // `Process`. It is readable for answers, time-outs and callbacks that are due alike, so the loop
  // needs no timer for us. It is the same for the client's whole life, reconnections included;
  // never read or close it.
  [[nodiscard]] int PollFd() const;
  // Takes in what has arrived and runs the callbacks that are due. Never waits.
  void Process();

 private:
  class Impl;

  const std::shared_ptr<Impl> impl_;
};

}  // namespace pelmor
