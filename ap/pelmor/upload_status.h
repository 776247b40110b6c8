// What the uploader shows of itself: a snapshot for the daemon's status.
#pragma once

#include "ap/common/last_response.h"
#include "ap/pelmor/record_account.h"

namespace varelnos::ap {

enum class Registration { kUnknown, kUnregistered, kRegistered };

struct UploadStatus {
  RecordCounts points;
  RecordCounts logs;
  // As `Larder` last said; unknown when it has not been asked, or did not say.
  Registration registration = Registration::kUnknown;
  LastResponse metrics;
  LastResponse log;
};

}  // namespace varelnos::ap
