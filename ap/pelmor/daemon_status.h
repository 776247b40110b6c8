// The daemon's status as one line of text, for its supervisor to show.
//
//   points recorded=3 accepted=1 …; logs recorded=0 …; gates access_token=yes …; ticks count=2 …;
//   metrics time=1700000000 status=200; token time=1700000000 error="Could not resolve host: …"
//
// The grammar is in ap-pelmor(8), and read by pelmorctl. The line has no control characters, no
// secrets, and a bounded length, whatever the texts of errors hold.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "ap/common/last_response.h"
#include "ap/pelmor/upload_status.h"
#include "base/time.h"

namespace varelnos::ap {

// What is shown of the text of an error.
inline constexpr size_t kMaxStatusErrorBytes = 160;

struct DaemonStatus {
  UploadStatus upload;
  LastResponse token;
  bool refresh_token = false;
  bool access_token = false;
  bool network_time = false;
  uint64_t tick_count = 0;
  base::Time last_tick;  // Null: none yet.
};

std::string FormatStatus(const DaemonStatus& status);

}  // namespace varelnos::ap
