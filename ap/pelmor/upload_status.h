// A snapshot of the uploader for the daemon's status.
#pragma once

#include "ap/common/last_response.h"
#include "ap/pelmor/record_account.h"

namespace varelnos::ap {

enum class Registration { kUnknown, kUnregistered, kRegistered };

struct UploadStatus {
  RecordCounts points;
  RecordCounts logs;
  // The last reply of `Larder`; unknown if there was no call yet or it failed.
  Registration registration = Registration::kUnknown;
  LastResponse metrics;
  LastResponse log;
};

}  // namespace varelnos::ap
