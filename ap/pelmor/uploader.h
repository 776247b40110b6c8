// Keeps the records of other processes and uploads them to the cloud service.
//
// An upload cycle sends all metric points in one request, and logs one by one, each after the
// response to the one before. Records are lost at the end of the process; only the start time of
// the reporting interval is stored in a file. Runs on the message loop. Outstanding requests end
// with the uploader, because it is the only owner of its transport.
#pragma once

#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "ap/common/cloud_device.h"
#include "ap/common/configuration.h"
#include "ap/common/oauth2_manager.h"
#include "ap/common/system_clock_client.h"
#include "ap/pelmor/metrics_request.h"
#include "ap/pelmor/point_queue.h"
#include "ap/pelmor/record_account.h"
#include "ap/pelmor/records.h"
#include "ap/pelmor/upload_status.h"
#include "base/callback.h"
#include "base/time.h"
#include "base/values.h"
#include "kestle/any.h"
#include "kestle/http/transport.h"
#include "kestle/key_value_store.h"
#include "metrics/metrics_library.h"

namespace varelnos::ap {

class Uploader {
 public:
  // The collaborators are not owned; they must live as long as the message loop runs. `url` is the
  // base URL of the service; nothing else may hold `transport`. Aborts if "/etc/lsb-release" cannot
  // be loaded.
  Uploader(CloudDevice* cloud_device, OAuth2Manager* oauth2_manager,
           MetricsLibrary* metrics_library, SystemClockClient* system_clock_client,
           const std::string& url, std::shared_ptr<kestle::http::Transport> transport);
  Uploader(const Uploader&) = delete;
  Uploader& operator=(const Uploader&) = delete;

  // Records are kept while `CanUpload()` and dropped silently otherwise. A value that cannot be
  // encoded is a fatal error here, not during an upload.
  void RecordMetric(const std::string& name, const std::map<std::string, std::string>& labels,
                    const kestle::Any& value);
  // `data` is the reporter's raw bytes. A record over `kMaxLogRecords` replaces the oldest one.
  void RecordStructuredData(const std::string& type_url, const std::string& data);
  void RecordOfflineData(const std::string& type_url, const std::string& data);

  // Runs an upload cycle: starts the log chain and posts all points that are not answered yet.
  void Upload();

  // True if an access token is held and the clock has been set from the network.
  bool CanUpload();

  // Moves the pending points behind the unsent ones, then drops old ones and those over the limit.
  void TakePointsForUpload();
  // The unsent points. The pointers are valid until the queue changes.
  [[nodiscard]] PointsByName GroupPointsByName() const;
  void ClearUploadPoints();

  [[nodiscard]] UploadStatus Status() const;
  // `callback` runs at the end of each request, after `Status()` includes it.
  void SetChangedCallback(const base::Callback<void()>& callback) { changed_callback_ = callback; }

 private:
  friend class UploaderPeer;  // Of the tests.

  void LoadStartTime();
  void SaveStartTime(base::Time start_time);
  void RecordLog(LogKind kind, const std::string& type_url, const std::string& data);
  // The reason to drop a record now; none if it is kept.
  std::optional<DropReason> ClosedGate();
  // On false, `account` has counted the drop.
  [[nodiscard]] bool MayKeep(RecordAccount* account);
  [[nodiscard]] bool CheckRegistered(std::string* device_id);
  void CheckAccounts() const;
  void NotifyChanged() const;

  void PostMetrics(const std::string& device_id);
  void ReportMetricsRequest(const base::DictionaryValue& body, size_t group_count);
  void OnMetricsUploadDone(kestle::http::RequestID id,
                           std::unique_ptr<kestle::http::Response> response);
  void OnMetricsUploadError(kestle::http::RequestID id, const kestle::Error* error);

  void UploadNextLog();
  kestle::http::RequestID PostLog(const std::string& device_id, const LogRecord& record);
  void OnLogUploadSuccess(kestle::http::RequestID id,
                          std::unique_ptr<kestle::http::Response> response);
  void OnLogUploadError(kestle::http::RequestID id, const kestle::Error* error);
  void PopAcceptedLog();
  [[nodiscard]] base::DictionaryValue BuildStructuredLogRequest(const LogRecord& record) const;
  [[nodiscard]] base::DictionaryValue BuildOfflineLogRequest(const LogRecord& record) const;
  std::string ReadLsbReleaseValue(const char* key) const;

  [[nodiscard]] std::string BuildUrl(const std::string& device_id, const std::string& path) const;
  kestle::http::HeaderList BuildBearerHeader();

  CloudDevice* const cloud_device_;
  base::Time start_time_;                        // Of the reporting interval; null: not fixed yet.
  PointQueue pending_points_{kMaxUploadPoints};  // Recorded since the last cycle.
  std::deque<MetricPoint> unsent_points_;        // Moved to an upload cycle, not yet answered.
  std::deque<LogRecord> pending_logs_;
  bool log_upload_in_flight_ = false;
  RecordAccount point_account_;  // Of both queues of points.
  RecordAccount log_account_;
  Registration registration_ = Registration::kUnknown;
  LastResponse last_metrics_response_;
  LastResponse last_log_response_;
  base::Callback<void()> changed_callback_;
  OAuth2Manager* const oauth2_manager_;
  MetricsLibrary* const metrics_library_;
  SystemClockClient* const system_clock_client_;
  const std::string url_;
  const std::shared_ptr<kestle::http::Transport> transport_;
  kestle::KeyValueStore lsb_release_;
};

}  // namespace varelnos::ap
