// D-Bus messages with arguments from a fuzzer's input.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <string>
#include <vector>

#include "dbus/message.h"

namespace fuzz {

// Unsealed messages of a connection that the code under test does not use.
dbus::MessagePtr NewCall(const std::string& path, const std::string& interface,
                         const std::string& member);
dbus::MessagePtr NewSignal(const std::string& path, const std::string& interface,
                           const std::string& member);
// Reply to a call with this serial.
dbus::MessagePtr NewReply(uint32_t serial);
dbus::MessagePtr NewErrorReply(uint32_t serial, const std::string& name);
// Makes the message readable.
void Seal(sd_bus_message* message);

// The message as it is sent over a socket.
std::string WireBytes(sd_bus_message* message);
// A bus's side of the authentication.
inline constexpr char kAuthenticated[] =
    "DATA\r\nOK 00112233445566778899aabbccddeeff\r\nAGREE_UNIX_FD\r\n";
// Reads to the end, or until reading from a non-blocking descriptor would block.
std::string ReadAvailable(int fd);

// A text that the code under test knows, or else any text.
std::string AnyWord(FuzzedDataProvider* input);
std::string AnyPath(FuzzedDataProvider* input);

// The signature of one complete type, including nested containers.
std::string AnyType(FuzzedDataProvider* input);
// Appends a value of one complete type, restricted to values that sd-bus accepts.
void AppendAny(sd_bus_message* message, const std::string& type, FuzzedDataProvider* input);

// Splits a signature into its complete types.
std::vector<std::string> SplitTypes(const std::string& signature);

}  // namespace fuzz
