// The outcome of the last request of a kind, for the daemon's status.
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
  int status = 0;     // The HTTP status; 0: no response.
  std::string error;  // The reason for no response, or the error in a token response.
};

}  // namespace varelnos::ap
