// The arguments of a message as text, for tests to compare.
#pragma once

#include <string>
#include <vector>

#include "dbus/message.h"

namespace dbus {

// One text for each argument: "text" in quotes, 12, 0.5, true, [1, 2], {"key": 3}, (4, 5). A
// variant reads as its contents.
std::vector<std::string> DescribeArguments(const Message& message);

std::string Join(const std::vector<std::string>& parts);

}  // namespace dbus
