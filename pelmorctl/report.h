// Formats findings, for people and for programs.
#pragma once

#include <string>
#include <vector>

#include "pelmorctl/condition.h"
#include "pelmorctl/config_check.h"

namespace pelmorctl {

bool AllPassed(const std::vector<Condition>& conditions);

// Fails the conditions that passed with a warning.
std::vector<Condition> FailWarnings(std::vector<Condition> conditions);

// True on a terminal, unless NO_COLOR has a value.
bool WantsColour(bool is_terminal, const char* no_color);

std::string FormatConditions(const std::vector<Condition>& conditions, bool colour);
// {"healthy":…,"version":…,"conditions":[{"name":…,"green":…,"finding":…,"advice":…},…]}
std::string FormatConditionsAsJson(const std::vector<Condition>& conditions);

std::string FormatConfigReport(const ConfigReport& report);

}  // namespace pelmorctl
