#include "ap/pelmor/uploader.h"

#include <utility>

#include "ap/pelmor/typed_value.h"
#include "ap/pelmor/web_safe_base64.h"
#include "base/files.h"
#include "base/json.h"
#include "base/logging.h"
#include "base/memory.h"
#include "base/strings.h"
#include "kestle/http/post.h"
#include "kestle/http/sendable_url.h"
#include "kestle/mime.h"
#include "kestle/url.h"

namespace varelnos::ap {

namespace {

constexpr char kMetricsPath[] = "/metrics:batchCreatePoints";

constexpr char kRequestPointCount[] = "AccessPoint.PelmorMetrics.RequestPointCount";
constexpr char kRequestWireSize[] = "AccessPoint.PelmorMetrics.RequestWireSize";
constexpr char kRequestWireSizePerPoint[] = "AccessPoint.PelmorMetrics.RequestWireSizePerPoint";
constexpr char kResponseStatusCode[] = "AccessPoint.PelmorMetrics.ResponseStatusCode";

// Encodes and discards the value, so that an unsupported one fails now and not during an upload.
void CheckEncodable(const kestle::Any& value) {
  base::DictionaryValue scratch;
  EncodeTypedValue(value, &scratch);
}

}  // namespace

Uploader::Uploader(CloudDevice* cloud_device, OAuth2Manager* oauth2_manager,
                   MetricsLibrary* metrics_library, SystemClockClient* system_clock_client,
                   const std::string& url, std::shared_ptr<kestle::http::Transport> transport)
    : cloud_device_(cloud_device),
      oauth2_manager_(oauth2_manager),
      metrics_library_(metrics_library),
      system_clock_client_(system_clock_client),
      url_(url),
      transport_(std::move(transport)) {
  LoadStartTime();
  CHECK(lsb_release_.Load(base::FilePath("/etc/lsb-release"))) << "Unable to load lsb-release";
}

void Uploader::LoadStartTime() {
  std::string serialized;
  int64_t internal_value = 0;
  if (!base::ReadFileToString(kStartTimePath, &serialized) ||
      !base::StringToInt64(serialized, &internal_value))
    return;
  start_time_ = base::Time::FromInternalValue(internal_value);
  LOG(INFO) << "Loaded start time: " << start_time_;
}

void Uploader::SaveStartTime(base::Time start_time) {
  const std::string serialized = base::Int64ToString(start_time.ToInternalValue());
  CHECK(base::WriteFile(kStartTimePath, serialized.data(), serialized.size()) != -1);
  start_time_ = start_time;
  LOG(INFO) << "Saved start time: " << start_time_;
}

bool Uploader::CanUpload() { return !ClosedGate(); }

std::optional<DropReason> Uploader::ClosedGate() {
  if (oauth2_manager_->GetAccessToken().empty()) return DropReason::kNoToken;
  if (!system_clock_client_->HasNetworkTime()) return DropReason::kNoNetworkTime;
  return std::nullopt;
}

bool Uploader::MayKeep(RecordAccount* account) {
  const std::optional<DropReason> closed = ClosedGate();
  if (closed) account->Drop(*closed);
  return !closed;
}

void Uploader::RecordMetric(const std::string& name,
                            const std::map<std::string, std::string>& labels,
                            const kestle::Any& value) {
  if (!MayKeep(&point_account_)) return;
  CheckEncodable(value);
  point_account_.Keep();
  if (!pending_points_.Append({name, labels, value, base::Time::Now()}))
    point_account_.DropUnsent(DropReason::kOverLimit);
  CheckAccounts();
}

void Uploader::RecordStructuredData(const std::string& type_url, const std::string& data) {
  RecordLog(LogKind::kStructured, type_url, data);
}

void Uploader::RecordOfflineData(const std::string& type_url, const std::string& data) {
  RecordLog(LogKind::kOffline, type_url, data);
}

void Uploader::RecordLog(LogKind kind, const std::string& type_url, const std::string& data) {
  if (!MayKeep(&log_account_)) return;
  log_account_.Keep();
  pending_logs_.push_back({kind, type_url, WebSafeBase64Encode(data), base::Time::Now()});
  if (pending_logs_.size() > kMaxLogRecords) {
    pending_logs_.pop_front();
    log_account_.DropOldest(1, DropReason::kPushedOut);
  }
  CheckAccounts();
}

void Uploader::Upload() {
  std::string device_id;
  if (!CheckRegistered(&device_id) || !CanUpload()) return;
  UploadNextLog();
  TakePointsForUpload();
  if (unsent_points_.empty()) return;
  if (start_time_.is_null()) {
    const base::Time first = unsent_points_.front().timestamp;
    LOG(INFO) << "Set start time from first point timestamp: " << first;
    SaveStartTime(first);
  }
  PostMetrics(device_id);
}

bool Uploader::CheckRegistered(std::string* device_id) {
  const bool answered = cloud_device_->CheckDeviceRegistered(device_id, nullptr);
  if (!answered)
    registration_ = Registration::kUnknown;
  else
    registration_ = device_id->empty() ? Registration::kUnregistered : Registration::kRegistered;
  return answered;
}

void Uploader::TakePointsForUpload() {
  const base::Time cutoff = base::Time::Now() - kMaxPointAge;
  const Trimmed trimmed = pending_points_.MoveTo(&unsent_points_, cutoff);
  point_account_.DropOldest(trimmed.too_old, DropReason::kTooOld);
  point_account_.DropOldest(trimmed.over_limit, DropReason::kOverLimit);
  CheckAccounts();
}

PointsByName Uploader::GroupPointsByName() const {
  PointsByName groups;
  for (const MetricPoint& point : unsent_points_) groups[point.name].push_back(&point);
  return groups;
}

void Uploader::ClearUploadPoints() {
  // The points of the answered request are counted already; others may be in a later request.
  point_account_.DropOldest(unsent_points_.size(), DropReason::kPushedOut);
  unsent_points_.clear();
}

UploadStatus Uploader::Status() const {
  return {point_account_.Counts(), log_account_.Counts(), registration_, last_metrics_response_,
          last_log_response_};
}

void Uploader::CheckAccounts() const {
  point_account_.Check(pending_points_.size() + unsent_points_.size());
  log_account_.Check(pending_logs_.size());
}

void Uploader::NotifyChanged() const {
  CheckAccounts();
  if (!changed_callback_.is_null()) changed_callback_.Run();
}

void Uploader::PostMetrics(const std::string& device_id) {
  const PointsByName groups = GroupPointsByName();
  const base::DictionaryValue body = BuildMetricsRequest(groups, start_time_);
  ReportMetricsRequest(body, groups.size());
  const std::string url = BuildUrl(device_id, kMetricsPath);
  kestle::http::HeaderList headers = BuildBearerHeader();
  headers.emplace_back(kestle::http::request_header::kContentType,
                       kestle::mime::application::kJson);
  // If an earlier request is still outstanding, its points are sent again, and the first response
  // decides about all of them.
  const kestle::http::RequestID id =
      kestle::http::PostJson(url, body, headers, transport_,
                             base::Bind(&Uploader::OnMetricsUploadDone, base::Unretained(this)),
                             base::Bind(&Uploader::OnMetricsUploadError, base::Unretained(this)));
  point_account_.Send(id, unsent_points_.size());
}

std::string Uploader::BuildUrl(const std::string& device_id, const std::string& path) const {
  // After a base without a host, the device id would become the host that gets the token. The
  // transport rejects such a base, so that the upload fails.
  if (!kestle::http::IsSendableUrl(url_, nullptr)) return url_;
  return kestle::url::CombineMultiple(url_, {device_id, path});
}

kestle::http::HeaderList Uploader::BuildBearerHeader() {
  return {{kestle::http::request_header::kAuthorization,
           "Bearer " + oauth2_manager_->GetAccessToken()}};
}

// The number of points is that of the groups, one per metric name, so that the size "per point" is
// the size per name.
void Uploader::ReportMetricsRequest(const base::DictionaryValue& body, size_t group_count) {
  std::string text;
  base::JSONWriter::Write(body, &text);
  metrics_library_->SendSparse(kRequestPointCount, static_cast<int>(group_count));
  metrics_library_->SendSparse(kRequestWireSize, static_cast<int>(text.size()));
  metrics_library_->SendSparse(kRequestWireSizePerPoint,
                               static_cast<int>(text.size() / group_count));
}

void Uploader::OnMetricsUploadDone(kestle::http::RequestID id,
                                   std::unique_ptr<kestle::http::Response> response) {
  metrics_library_->SendSparse(kResponseStatusCode, response->GetStatusCode());
  last_metrics_response_ = LastResponse::Of(*response);
  if (!oauth2_manager_->ValidateResponse(*response)) {
    LOG(INFO) << "Upload failed due to expired access token";
    point_account_.Finish(id, RecordAccount::Outcome::kUnknown);
    return NotifyChanged();
  }
  if (!response->IsSuccessful())
    LOG(WARNING) << "Error uploading metrics: " << response->ExtractDataAsString();
  point_account_.Finish(id, response->IsSuccessful() ? RecordAccount::Outcome::kAccepted
                                                     : RecordAccount::Outcome::kRejected);
  // Rejected points are dropped like accepted ones: only an expired token keeps them.
  ClearUploadPoints();
  // The memory of the points is free until the next ones are recorded.
  base::ReleaseFreeMemory();
  NotifyChanged();
}

void Uploader::OnMetricsUploadError(kestle::http::RequestID id, const kestle::Error* error) {
  LOG(ERROR) << "Error uploading metrics: " << error->GetMessage();
  last_metrics_response_ = LastResponse::Of(*error);
  point_account_.Finish(id, RecordAccount::Outcome::kUnknown);
  NotifyChanged();
}

}  // namespace varelnos::ap
