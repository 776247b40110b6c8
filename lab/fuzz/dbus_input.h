// Messages of the bus with arguments made of a fuzzer's input.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <string>
#include <vector>

#include "dbus/message.h"

namespace fuzz {

// Messages in the making, which no connection of the code under test sends.
dbus::MessagePtr NewCall(const std::string& path, const std::string& interface,
                         const std::string& member);
dbus::MessagePtr NewSignal(const std::string& path, const std::string& interface,
                           const std::string& member);
// To a call with this serial.
dbus::MessagePtr NewReply(uint32_t serial);
dbus::MessagePtr NewErrorReply(uint32_t serial, const std::string& name);
// Makes it readable.
void Seal(sd_bus_message* message);

// The message as it goes over a socket.
std::string WireBytes(sd_bus_message* message);
// What a bus says to a client that authenticates.
inline constexpr char kAuthenticated[] =
    "DATA\r\nOK 00112233445566778899aabbccddeeff\r\nAGREE_UNIX_FD\r\n";
// All that there is to read without waiting.
std::string ReadAvailable(int fd);

// A text that the code under test knows, now and then, or else any.
std::string AnyWord(FuzzedDataProvider* input);
std::string AnyPath(FuzzedDataProvider* input);

// The signature of one complete type, containers of containers and all.
std::string AnyType(FuzzedDataProvider* input);
// Appends a value of one complete type. What sd-bus would not append, it is not given.
void AppendAny(sd_bus_message* message, const std::string& type, FuzzedDataProvider* input);

// The complete types of a signature, one by one.
std::vector<std::string> SplitTypes(const std::string& signature);

}  // namespace fuzz
