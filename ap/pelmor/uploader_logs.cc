// The log chain of the uploader: each record is sent after the one before was accepted.

#include <utility>

#include "ap/pelmor/uploader.h"
#include "ap/pelmor/wire_time.h"
#include "base/logging.h"
#include "kestle/http/post.h"

namespace varelnos::ap {

namespace {

constexpr char kStructuredLogsPath[] = "/structuredLogs";
constexpr char kWriteLogsPath[] = "/writeLogs";

constexpr char kRequestWireSize[] = "AccessPoint.PelmorStructuredLog.RequestWireSize";
constexpr char kResponseStatusCode[] = "AccessPoint.PelmorStructuredLog.ResponseStatusCode";

// Keys of the release file.
constexpr char kReleaseVersion[] = "VARELNOS_RELEASE_VERSION";
constexpr char kReleaseTrack[] = "VARELNOS_RELEASE_TRACK";
constexpr char kReleaseBoard[] = "VARELNOS_RELEASE_BOARD";

}  // namespace

void Uploader::UploadNextLog() {
  std::string device_id;
  if (!CheckRegistered(&device_id)) return;
  if (log_upload_in_flight_) return;
  if (pending_logs_.empty()) return;
  if (oauth2_manager_->GetAccessToken().empty()) return;
  log_upload_in_flight_ = true;
  log_account_.Send(PostLog(device_id, pending_logs_.front()), 1);
}

kestle::http::RequestID Uploader::PostLog(const std::string& device_id, const LogRecord& record) {
  std::string url;
  base::DictionaryValue body;
  switch (record.kind) {
    case LogKind::kStructured:
      url = BuildUrl(device_id, kStructuredLogsPath);
      body = BuildStructuredLogRequest(record);
      metrics_library_->SendSparse(kRequestWireSize, static_cast<int>(record.value.size()));
      break;
    case LogKind::kOffline:
      url = BuildUrl(device_id, kWriteLogsPath);
      body = BuildOfflineLogRequest(record);
      break;
  }
  return kestle::http::PostJson(url, body, BuildBearerHeader(), transport_,
                                base::Bind(&Uploader::OnLogUploadSuccess, base::Unretained(this)),
                                base::Bind(&Uploader::OnLogUploadError, base::Unretained(this)));
}

base::DictionaryValue Uploader::BuildStructuredLogRequest(const LogRecord& record) const {
  base::DictionaryValue body;
  body.SetString("typeUrl", record.type_url);
  body.SetString("value", record.value);
  return body;
}

base::DictionaryValue Uploader::BuildOfflineLogRequest(const LogRecord& record) const {
  base::ListValue write_log;
  write_log.Append(BuildStructuredLogRequest(record));
  base::DictionaryValue body;
  body.SetString("properties.softwareVersion", ReadLsbReleaseValue(kReleaseVersion));
  body.SetString("properties.updateChannel", ReadLsbReleaseValue(kReleaseTrack));
  body.SetString("properties.hardwareId", ReadLsbReleaseValue(kReleaseBoard));
  body.SetInteger("deviceTimestamp.seconds", WireSeconds(record.timestamp));
  body.Set("writeLog", std::move(write_log));
  return body;
}

std::string Uploader::ReadLsbReleaseValue(const char* key) const {
  std::string value;
  return lsb_release_.GetString(key, &value) ? value : "unknown";
}

void Uploader::OnLogUploadSuccess(kestle::http::RequestID id,
                                  std::unique_ptr<kestle::http::Response> response) {
  log_upload_in_flight_ = false;
  // Also for offline records.
  metrics_library_->SendSparse(kResponseStatusCode, response->GetStatusCode());
  last_log_response_ = LastResponse::Of(*response);
  oauth2_manager_->ValidateResponse(*response);
  if (!response->IsSuccessful()) {
    LOG(WARNING) << "Error uploading log: " << response->ExtractDataAsString();
    // The record stays in the queue if it was not pushed out.
    log_account_.Finish(id, RecordAccount::Outcome::kUnknown);
    return NotifyChanged();
  }
  log_account_.Finish(id, RecordAccount::Outcome::kAccepted);
  PopAcceptedLog();
  UploadNextLog();
  NotifyChanged();
}

void Uploader::OnLogUploadError(kestle::http::RequestID id, const kestle::Error* error) {
  log_upload_in_flight_ = false;
  LOG(ERROR) << "Error uploading log: " << error->GetMessage();
  last_log_response_ = LastResponse::Of(*error);
  log_account_.Finish(id, RecordAccount::Outcome::kUnknown);
  NotifyChanged();
}

// Removes the front record, even if the sent one was pushed out and the front is an unsent one.
void Uploader::PopAcceptedLog() {
  pending_logs_.pop_front();
  log_account_.DropOldest(1, DropReason::kPushedOut);
}

}  // namespace varelnos::ap
