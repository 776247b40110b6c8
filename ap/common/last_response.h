// How the last request of some kind ended, for the daemon's status.
#pragma once

#include <string>

#include "base/time.h"
#include "kestle/error.h"
#include "kestle/http/transport.h"

namespace varelnos::ap {

struct LastResponse {
  static LastResponse Of(const kestle::http::Response& response) {
    return {base::Time::Now(), response.GetStatusCode(), ""};
  }
  static LastResponse Of(const kestle::Error& error) {
    return {base::Time::Now(), 0, error.GetMessage()};
  }

  base::Time time;    // Null: no request has ended yet.
  int status = 0;     // Of HTTP; 0: there was no response.
  std::string error;  // Why there was none, or the error that a token response names.
};

}  // namespace varelnos::ap
