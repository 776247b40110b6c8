// Text as the bus takes it.
#pragma once

#include <string_view>

namespace pelmorctl {

// Whether the text is UTF-8 (RFC 3629). The bus carries no other text.
bool IsUtf8(std::string_view text);

}  // namespace pelmorctl
