#include "pelmorctl/stream.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <utility>

#include "pelmor/client.h"
#include "pelmorctl/arguments.h"

namespace pelmorctl {

namespace {

using pelmor::StatusCode;

constexpr size_t kChunkBytes = size_t{64} * 1024;
// The longest that the daemon can be blocked by a call that it makes itself, and some more.
constexpr pelmor::Timeout kPatience{30'000};

pelmor::Value ValueOf(const kestle::Any& value) {
  if (const auto* const truth = value.TryGet<bool>()) return *truth;
  if (const auto* const whole = value.TryGet<int64_t>()) return *whole;
  if (const auto* const number = value.TryGet<double>()) return *number;
  return *value.TryGet<std::string>();
}

bool IsUnavailable(StatusCode code) {
  return code == StatusCode::kNoDaemon || code == StatusCode::kNotConnected ||
         code == StatusCode::kTimedOut || code == StatusCode::kBusy;
}

class Stream {
 public:
  Stream(int input, const std::function<void(const std::string&)>& complain)
      : input_(input), complain_(complain) {}

  ExitCode Run() {
    pelmor::Status status = client_.Connect();
    while (status.ok() && ReadChunk()) status = RecordLines();
    // The last line may have no end.
    if (status.ok() && (is_too_long_ || !text_.empty())) status = RecordLine(text_);
    if (status.ok()) status = client_.Flush(kPatience);
    if (!status.ok()) return Fail(status);
    return failed_ ? kFailed : kDone;
  }

 private:
  // Waits for input, and serves the client meanwhile. False at the end of the input, after a failed
  // read, and after a loss, which the next `Flush` reports.
  bool ReadChunk() {
    pollfd polled[] = {{input_, POLLIN, 0}, {client_.PollFd(), POLLIN, 0}};
    while (client_.LostRecords() == 0) {
      if (poll(polled, 2, /*timeout=*/-1) < 0) continue;
      if (polled[1].revents != 0) client_.Process();
      if (polled[0].revents != 0) return Read();
    }
    text_.clear();
    return false;
  }

  bool Read() {
    const size_t before = text_.size();
    text_.resize(before + kChunkBytes);
    const ssize_t count = read(input_, text_.data() + before, kChunkBytes);
    text_.resize(before + static_cast<size_t>(std::max<ssize_t>(count, 0)));
    if (count >= 0 || errno == EINTR || errno == EAGAIN) return count != 0;
    Complain(std::string("standard input can't be read: ") + strerror(errno));
    return false;
  }

  // All complete lines.
  pelmor::Status RecordLines() {
    size_t start = 0;
    for (size_t end = 0; (end = text_.find('\n', start)) != std::string::npos; start = end + 1) {
      pelmor::Status status = RecordLine(std::string_view(text_).substr(start, end - start));
      if (!status.ok() || client_.LostRecords() > 0) return status;
    }
    text_.erase(0, start);
    SkipLongLine();
    return pelmor::Status();
  }

  // Keeps of an incomplete line that is too long only the fact that it is.
  void SkipLongLine() {
    if (text_.size() <= kMaxLineBytes) return;
    is_too_long_ = true;
    text_.clear();
  }

  pelmor::Status RecordLine(std::string_view line) {
    ++line_;
    if (std::exchange(is_too_long_, false) || line.size() > kMaxLineBytes) {
      ComplainOfLine("more than " + std::to_string(kMaxLineBytes) + " bytes: too large");
      return pelmor::Status();
    }
    const auto record = ParseMetricLine(line);
    if (!record) {
      ComplainOfLine(record.reason());
    } else if (*record) {
      pelmor::Status status =
          client_.RecordMetricAsync((*record)->name, (*record)->labels, ValueOf((*record)->value));
      if (status.code() != StatusCode::kInvalidArgument) return status;
      // Many short labels make a record that is larger than its line.
      ComplainOfLine(status.message());
    }
    return pelmor::Status();
  }

  void ComplainOfLine(const std::string& reason) {
    Complain("line " + std::to_string(line_) + ": " + reason);
  }
  void Complain(const std::string& reason) {
    failed_ = true;
    complain_(reason);
  }

  ExitCode Fail(const pelmor::Status& status) {
    const uint64_t lost = client_.LostRecords();
    std::string reason = status.message() + " (" + status.error_name() + ")";
    if (lost > 0)
      reason = "up to " + std::to_string(lost) + " records before line " +
               std::to_string(line_ + 1) + " are lost: " + reason;
    if (status.code() == StatusCode::kRefused)
      reason += ": only root and the members of the group pelmor may report";
    const bool unavailable = IsUnavailable(status.code());
    if (unavailable) reason += ": see 'pelmorctl doctor'";
    complain_(reason);
    return unavailable ? kUnavailable : kFailed;
  }

  const int input_;
  const std::function<void(const std::string&)>& complain_;
  pelmor::Client client_{kPatience};
  // What was read and not yet recorded.
  std::string text_;
  // The rest of the present line is skipped.
  bool is_too_long_ = false;
  uint64_t line_ = 0;
  bool failed_ = false;
};

}  // namespace

ExitCode RecordStream(int input, const std::function<void(const std::string&)>& complain) {
  return Stream(input, complain).Run();
}

}  // namespace pelmorctl
