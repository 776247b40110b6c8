#include "pelmor/client.h"

#include <string_view>
#include <utility>

#include "client/impl.h"
#include "dbus/text.h"
#include "kestle/any.h"

namespace pelmor {

namespace {

// Checks the texts of a record and adds up its size.
class Check {
 public:
  Check& Text(const char* what, std::string_view text) {
    size_ += text.size();
    if (fault_.empty() && !dbus::IsText(text))
      fault_ = std::string(what) + " is not UTF-8 text that D-Bus carries";
    return *this;
  }
  Check& LabelTexts(const Labels& labels) {
    for (const auto& [key, value] : labels) {
      size_ += kLabelBytes;
      Text("A label's key", key).Text("A label's value", value);
    }
    return *this;
  }
  Check& Data(const Bytes& data) {
    size_ += data.size();
    return *this;
  }

  [[nodiscard]] Record For(Record::Maker make) const { return {Result(), size_, std::move(make)}; }

 private:
  Status Result() const {
    if (!fault_.empty()) return Invalid(fault_);
    return size_ > kMaxRecordBytes ? Invalid("The record is too large") : Status();
  }
  static Status Invalid(const std::string& message) {
    return Status(StatusCode::kInvalidArgument, "org.freedesktop.DBus.Error.InvalidArgs", message);
  }

  size_t size_ = 0;
  std::string fault_;
};

kestle::Any AnyOf(const Value& value) {
  return std::visit([](const auto& held) { return kestle::Any(held); }, value.held());
}

// The records refer to the arguments.

Record MetricOf(const std::string& name, const Labels& labels, const Value& value) {
  Check check;
  check.Text("The metric's name", name).LabelTexts(labels);
  if (const auto* const text = std::get_if<std::string>(&value.held()))
    check.Text("The metric's value", *text);
  return check.For([&](const ManagerProxy& manager) {
    return manager.NewRecordMetricCall(name, labels, AnyOf(value));
  });
}

Record StructuredDataOf(const std::string& type_url, const Bytes& data) {
  return Check().Text("The type URL", type_url).Data(data).For([&](const ManagerProxy& manager) {
    return manager.NewRecordStructuredDataCall(type_url, data);
  });
}

Record OfflineDataOf(const std::string& type_url, const Bytes& data) {
  return Check().Text("The type URL", type_url).Data(data).For([&](const ManagerProxy& manager) {
    return manager.NewRecordOfflineDataCall(type_url, data);
  });
}

}  // namespace

Client::Client(Timeout queue_wait) : impl_(std::make_shared<Impl>(queue_wait)) {}
Client::~Client() { impl_->Close(); }

Status Client::Connect() { return impl_->Connect(); }

Status Client::RecordMetric(const std::string& name, const Labels& labels, const Value& value,
                            Timeout timeout) {
  return impl_->Block(MetricOf(name, labels, value), timeout);
}

Status Client::RecordStructuredData(const std::string& type_url, const Bytes& data,
                                    Timeout timeout) {
  return impl_->Block(StructuredDataOf(type_url, data), timeout);
}

Status Client::RecordOfflineData(const std::string& type_url, const Bytes& data, Timeout timeout) {
  return impl_->Block(OfflineDataOf(type_url, data), timeout);
}

Status Client::RecordMetricAsync(const std::string& name, const Labels& labels, const Value& value,
                                 Callback done, Timeout timeout) {
  return impl_->Start(MetricOf(name, labels, value), timeout, std::move(done));
}

Status Client::RecordStructuredDataAsync(const std::string& type_url, const Bytes& data,
                                         Callback done, Timeout timeout) {
  return impl_->Start(StructuredDataOf(type_url, data), timeout, std::move(done));
}

Status Client::RecordOfflineDataAsync(const std::string& type_url, const Bytes& data, Callback done,
                                      Timeout timeout) {
  return impl_->Start(OfflineDataOf(type_url, data), timeout, std::move(done));
}

Status Client::Flush(Timeout timeout) { return impl_->Flush(timeout); }
uint64_t Client::LostRecords() const { return impl_->LostRecords(); }

int Client::PollFd() const { return impl_->PollFd(); }

void Client::Process() {
  // A callback may destroy the client.
  const std::shared_ptr<Impl> impl = impl_;
  impl->Process();
}

}  // namespace pelmor
