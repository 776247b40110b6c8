// Base64 without "+" and "/".
#pragma once

#include <string>

namespace varelnos::ap {

// The URL-safe alphabet of RFC 4648, section 5, with the "=" padding, which the service requires.
std::string WebSafeBase64Encode(const std::string& data);

}  // namespace varelnos::ap
