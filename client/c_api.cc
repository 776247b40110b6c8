// The C interface, over the C++ one.
#include <sys/eventfd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "base/printable.h"
#include "base/scoped_fd.h"
#include "pelmor/client.h"
#include "pelmor/pelmor.h"

struct pelmor_client {
  explicit pelmor_client(uint32_t queue_wait_ms) : client(pelmor::Timeout(queue_wait_ms)) {}

  pelmor::Client client;
  std::string message;
};

namespace {

using pelmor::Status;
using pelmor::StatusCode;

// What a `pelmor::Client` opens at once.
constexpr size_t kDescriptors = 3;
// More cannot be in a record.
constexpr size_t kMaxLabels = pelmor::kMaxRecordBytes / pelmor::kLabelBytes;

int ErrorOf(StatusCode code) {
  switch (code) {
    case StatusCode::kOk:
      return 0;
    case StatusCode::kInvalidArgument:
      return -EINVAL;
    case StatusCode::kNotConnected:
      return -ENOTCONN;
    case StatusCode::kNoDaemon:
      return -ESRCH;
    case StatusCode::kRefused:
      return -EACCES;
    case StatusCode::kTimedOut:
      return -ETIMEDOUT;
    case StatusCode::kFailed:
      return -EIO;
    case StatusCode::kBusy:
      return -EAGAIN;
  }
  return -EIO;
}

Status Invalid(std::string message) {
  return Status(StatusCode::kInvalidArgument, "", std::move(message));
}

// A client aborts the process if there are too few descriptors.
int CheckDescriptors() {
  std::array<base::ScopedFd, kDescriptors> opened;
  for (base::ScopedFd& fd : opened) {
    fd = base::ScopedFd(eventfd(0, EFD_CLOEXEC));
    if (!fd.is_valid()) return -errno;
  }
  return 0;
}

// This file is compiled with exceptions, so that `noexcept` ends the process if memory runs out,
// also in a caller that catches.
pelmor_client* New(uint32_t queue_wait_ms) noexcept {
  return std::make_unique<pelmor_client>(queue_wait_ms).release();
}

Status TooLarge() { return Invalid("The record is too large"); }

// Whether the text fits into a record that has room for so many bytes; takes them. Checked before
// texts are copied, as labels can share a text that is too large in sum.
bool Take(const char* text, size_t* room) {
  const size_t size = strnlen(text, *room + 1);
  if (size > *room) return false;
  *room -= size;
  return true;
}

Status CheckText(const char* text, const char* if_null) {
  size_t room = pelmor::kMaxRecordBytes;
  if (text == nullptr) return Invalid(if_null);
  return Take(text, &room) ? Status() : TooLarge();
}

Status CheckValue(const char* text) { return CheckText(text, "The metric's value is null"); }
template <typename Number>
Status CheckValue(Number /*value*/) {
  return Status();
}

Status CopyLabels(const pelmor_label* labels, size_t count, pelmor::Labels* copied) {
  if (labels == nullptr && count > 0) return Invalid("The labels are null");
  if (count > kMaxLabels) return TooLarge();
  size_t room = pelmor::kMaxRecordBytes;
  for (size_t i = 0; i < count; ++i) {
    const auto& [name, value] = labels[i];
    if (name == nullptr || value == nullptr) return Invalid("A label's name or value is null");
    if (!Take(name, &room) || !Take(value, &room)) return TooLarge();
    if (!copied->emplace(name, value).second)
      return Invalid("The label '" + base::Printable(name) + "' is given twice");
  }
  return Status();
}

Status CopyData(const void* data, size_t size, pelmor::Bytes* copied) {
  if (data == nullptr && size > 0) return Invalid("The data are null");
  if (size > pelmor::kMaxRecordBytes) return TooLarge();
  const auto* const bytes = static_cast<const uint8_t*>(data);
  copied->assign(bytes, bytes + size);
  return Status();
}

// Runs a call on the client and keeps why it failed.
template <typename Call>
int Run(pelmor_client* self, const Call& call) noexcept {
  if (self == nullptr) return -EINVAL;
  const Status status = call(self->client);
  if (!status.ok()) self->message = status.message();
  return ErrorOf(status.code());
}

template <typename Value>
int RecordMetric(pelmor_client* self, const char* name, const pelmor_label* labels,
                 size_t label_count, Value value) {
  return Run(self, [=](pelmor::Client& client) {
    pelmor::Labels copied;
    Status valid = CheckText(name, "The metric's name is null");
    if (valid.ok()) valid = CheckValue(value);
    if (valid.ok()) valid = CopyLabels(labels, label_count, &copied);
    return valid.ok() ? client.RecordMetricAsync(name, copied, value) : valid;
  });
}

using RecordData = Status (pelmor::Client::*)(const std::string&, const pelmor::Bytes&,
                                              pelmor::Client::Callback, pelmor::Timeout);

int RecordLog(pelmor_client* self, RecordData record, const char* type_url, const void* data,
              size_t size) {
  return Run(self, [=](pelmor::Client& client) {
    pelmor::Bytes copied;
    Status valid = CheckText(type_url, "The type URL is null");
    if (valid.ok()) valid = CopyData(data, size, &copied);
    return valid.ok() ? (client.*record)(type_url, copied, nullptr, pelmor::kDefaultTimeout)
                      : valid;
  });
}

}  // namespace

const char* pelmor_version() { return PELMOR_VERSION; }

int pelmor_open(uint32_t queue_wait_ms, pelmor_client** client) {
  if (client == nullptr) return -EINVAL;
  *client = nullptr;
  const int result = CheckDescriptors();
  if (result == 0) *client = New(queue_wait_ms);
  return result;
}

void pelmor_close(pelmor_client* client) { delete client; }

const char* pelmor_message(const pelmor_client* client) {
  return client == nullptr ? "There is no client" : client->message.c_str();
}

int pelmor_connect(pelmor_client* client) {
  return Run(client, [](pelmor::Client& connected) { return connected.Connect(); });
}

int pelmor_record_bool(pelmor_client* client, const char* name, const pelmor_label* labels,
                       size_t label_count, bool value) {
  return RecordMetric(client, name, labels, label_count, value);
}

int pelmor_record_int64(pelmor_client* client, const char* name, const pelmor_label* labels,
                        size_t label_count, int64_t value) {
  return RecordMetric(client, name, labels, label_count, value);
}

int pelmor_record_double(pelmor_client* client, const char* name, const pelmor_label* labels,
                         size_t label_count, double value) {
  return RecordMetric(client, name, labels, label_count, value);
}

int pelmor_record_string(pelmor_client* client, const char* name, const pelmor_label* labels,
                         size_t label_count, const char* value) {
  return RecordMetric(client, name, labels, label_count, value);
}

int pelmor_record_structured_data(pelmor_client* client, const char* type_url, const void* data,
                                  size_t size) {
  return RecordLog(client, &pelmor::Client::RecordStructuredDataAsync, type_url, data, size);
}

int pelmor_record_offline_data(pelmor_client* client, const char* type_url, const void* data,
                               size_t size) {
  return RecordLog(client, &pelmor::Client::RecordOfflineDataAsync, type_url, data, size);
}

int pelmor_flush(pelmor_client* client, uint32_t timeout_ms) {
  return Run(client,
             [=](pelmor::Client& flushed) { return flushed.Flush(pelmor::Timeout(timeout_ms)); });
}

uint64_t pelmor_lost_records(const pelmor_client* client) {
  return client == nullptr ? 0 : client->client.LostRecords();
}

int pelmor_poll_fd(const pelmor_client* client) {
  return client == nullptr ? -EINVAL : client->client.PollFd();
}

int pelmor_process(pelmor_client* client) {
  return Run(client, [](pelmor::Client& processed) {
    processed.Process();
    return Status();
  });
}
