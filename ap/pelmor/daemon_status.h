// The daemon's status as one line of text, which its supervisor shows.
//
//   points recorded=3 accepted=1 …; logs recorded=0 …; gates access_token=yes …; ticks count=2 …;
//   metrics time=1700000000 status=200; token time=1700000000 error="Could not resolve host: …"
//
// ap-pelmor(8) documents the grammar; pelmorctl parses it. Whatever the texts of errors contain,
// the line has no control characters, no secrets and a bounded length.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "ap/common/last_response.h"
#include "ap/pelmor/upload_status.h"
#include "base/time.h"

namespace varelnos::ap {

// The part of an error's text that is shown.
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
