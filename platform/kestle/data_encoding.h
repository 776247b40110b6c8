// Text forms of binary data.
#pragma once

#include <string>

namespace kestle::data_encoding {

// Standard Base64 with padding (RFC 4648, section 4).
std::string Base64Encode(const std::string& data);

}  // namespace kestle::data_encoding
