// Which texts D-Bus messages can contain. Thread-safe.
#pragma once

#include <string_view>

namespace dbus {

// True for UTF-8 (RFC 3629) without zero bytes, which the D-Bus specification forbids, and without
// Unicode noncharacters, which sd-bus does not send.
bool IsText(std::string_view text);

}  // namespace dbus
