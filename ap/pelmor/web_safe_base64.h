// Base64 for places where "+" and "/" have another meaning.
#pragma once

#include <string>

namespace varelnos::ap {

// The URL-safe alphabet of RFC 4648, section 5, with the "=" padding kept: the service wants whole
// quartets.
std::string WebSafeBase64Encode(const std::string& data);

}  // namespace varelnos::ap
