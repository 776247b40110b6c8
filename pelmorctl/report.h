// How findings are printed, for people and for machines.
#pragma once

#include <string>
#include <vector>

#include "pelmorctl/condition.h"
#include "pelmorctl/config_check.h"

namespace pelmorctl {

bool AllGreen(const std::vector<Condition>& conditions);

// Colour is for a terminal, unless NO_COLOR is set to anything.
bool WantsColour(bool is_terminal, const char* no_color);

std::string FormatConditions(const std::vector<Condition>& conditions, bool colour);
// {"healthy":…,"version":…,"conditions":[{"name":…,"green":…,"finding":…,"advice":…},…]}
std::string FormatConditionsAsJson(const std::vector<Condition>& conditions);

std::string FormatConfigReport(const ConfigReport& report);

}  // namespace pelmorctl
