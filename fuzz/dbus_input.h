// Messages of the bus with arguments made of a fuzzer's input.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <string>
#include <vector>

#include "dbus/message.h"

namespace fuzz {

// A message in the making, which no connection sends.
dbus::MessagePtr NewCall(const std::string& member);
// Makes it readable.
void Seal(sd_bus_message* message);

// The signature of one complete type, containers of containers and all.
std::string AnyType(FuzzedDataProvider* input);
// Appends a value of one complete type. What sd-bus would not append, it is not given.
void AppendAny(sd_bus_message* message, const std::string& type, FuzzedDataProvider* input);

// The complete types of a signature, one by one.
std::vector<std::string> SplitTypes(const std::string& signature);

}  // namespace fuzz
