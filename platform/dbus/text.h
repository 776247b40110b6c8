// What a text on the bus may hold. A free function, fit for any thread.
#pragma once

#include <string_view>

namespace dbus {

// True for UTF-8 (RFC 3629) without a zero byte and without noncharacters: the D-Bus specification
// forbids the former, the bus library does not send the latter either.
bool IsText(std::string_view text);

}  // namespace dbus
