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

  Status Result() const {
    if (!fault_.empty()) return Invalid(fault_);
    return size_ > kMaxRecordBytes ? Invalid("The record is too large") : Status();
  }

 private:
  static Status Invalid(const std::string& message) {
    return Status(StatusCode::kInvalidArgument, "org.freedesktop.DBus.Error.InvalidArgs", message);
  }

  size_t size_ = 0;
  std::string fault_;
};

Status CheckMetric(const std::string& name, const Labels& labels, const Value& value) {
  Check check;
  check.Text("The metric's name", name).LabelTexts(labels);
  if (const auto* const text = std::get_if<std::string>(&value.held()))
    check.Text("The metric's value", *text);
  return check.Result();
}

Status CheckLog(const std::string& type_url, const Bytes& data) {
  return Check().Text("The type URL", type_url).Data(data).Result();
}

kestle::Any AnyOf(const Value& value) {
  return std::visit([](const auto& held) { return kestle::Any(held); }, value.held());
}

}  // namespace

Client::Client() : impl_(std::make_shared<Impl>()) {}
Client::~Client() { impl_->Close(); }

Status Client::Connect() { return impl_->Connect(); }

Status Client::RecordMetric(const std::string& name, const Labels& labels, const Value& value,
                            Timeout timeout) {
  return impl_->Block(CheckMetric(name, labels, value), timeout,
                      [&](ManagerProxy* manager, kestle::ErrorPtr* error, int timeout_ms) {
                        return manager->RecordMetric(name, labels, AnyOf(value), error, timeout_ms);
                      });
}

Status Client::RecordStructuredData(const std::string& type_url, const Bytes& data,
                                    Timeout timeout) {
  return impl_->Block(CheckLog(type_url, data), timeout,
                      [&](ManagerProxy* manager, kestle::ErrorPtr* error, int timeout_ms) {
                        return manager->RecordStructuredData(type_url, data, error, timeout_ms);
                      });
}

Status Client::RecordOfflineData(const std::string& type_url, const Bytes& data, Timeout timeout) {
  return impl_->Block(CheckLog(type_url, data), timeout,
                      [&](ManagerProxy* manager, kestle::ErrorPtr* error, int timeout_ms) {
                        return manager->RecordOfflineData(type_url, data, error, timeout_ms);
                      });
}

void Client::RecordMetricAsync(const std::string& name, const Labels& labels, const Value& value,
                               Callback done, Timeout timeout) {
  impl_->Start(
      CheckMetric(name, labels, value), timeout,
      [&](ManagerProxy* manager, const auto&... results) {
        manager->RecordMetricAsync(name, labels, AnyOf(value), results...);
      },
      std::move(done));
}

void Client::RecordStructuredDataAsync(const std::string& type_url, const Bytes& data,
                                       Callback done, Timeout timeout) {
  impl_->Start(
      CheckLog(type_url, data), timeout,
      [&](ManagerProxy* manager, const auto&... results) {
        manager->RecordStructuredDataAsync(type_url, data, results...);
      },
      std::move(done));
}

void Client::RecordOfflineDataAsync(const std::string& type_url, const Bytes& data, Callback done,
                                    Timeout timeout) {
  impl_->Start(
      CheckLog(type_url, data), timeout,
      [&](ManagerProxy* manager, const auto&... results) {
        manager->RecordOfflineDataAsync(type_url, data, results...);
      },
      std::move(done));
}

int Client::PollFd() const { return impl_->PollFd(); }

void Client::Process() {
  // A callback may destroy the client.
  const std::shared_ptr<Impl> impl = impl_;
  impl->Process();
}

}  // namespace pelmor
