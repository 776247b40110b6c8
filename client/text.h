// What a D-Bus text may hold.
#pragma once

#include <string_view>

namespace pelmor {

// True for UTF-8 (RFC 3629) without a zero byte and without noncharacters, which the bus library
// does not send either.
bool IsDBusText(std::string_view text);

}  // namespace pelmor
