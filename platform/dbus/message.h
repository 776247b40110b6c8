// D-Bus messages, and the readers and writers of their arguments: a thin layer over sd_bus_message.
//
// The cursor belongs to the message: use one reader or writer of a message at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "dbus/types.h"

struct sd_bus_message;

namespace dbus {

struct MessageDeleter {
  void operator()(sd_bus_message* message) const;
};
// Owns one reference.
using MessagePtr = std::unique_ptr<sd_bus_message, MessageDeleter>;
// Takes another reference, as to a message that a callback of sd-bus gets.
MessagePtr Reference(sd_bus_message* raw);

class Message {
 public:
  explicit Message(MessagePtr raw) : raw_(std::move(raw)) {}

  [[nodiscard]] sd_bus_message* raw() const { return raw_.get(); }
  // The unique name of the sender; empty if the message was not received.
  [[nodiscard]] std::string GetSender() const;
  // Empty if the message has none.
  [[nodiscard]] std::string GetPath() const;
  [[nodiscard]] std::string GetInterface() const;
  [[nodiscard]] std::string GetMember() const;
  // Identifies a sent or received message among those of its sender; 0 if it was not sent yet.
  [[nodiscard]] uint64_t GetSerial() const;
  // True if the arguments have exactly these types.
  [[nodiscard]] bool HasSignature(const std::string& signature) const;

 private:
  MessagePtr raw_;
};

// A method return or an error reply.
class Response : public Message {
 public:
  using Message::Message;
  // The serial of the call.
  [[nodiscard]] uint64_t GetReplySerial() const;
  [[nodiscard]] bool IsError() const;
  // Empty unless this is an error reply.
  [[nodiscard]] std::string GetErrorName() const;
  [[nodiscard]] std::string GetErrorMessage() const;
};

class Signal : public Message {
 public:
  using Message::Message;
};

// Reads the arguments in order. Each `Pop…` returns false, and leaves the cursor and the output
// unchanged, if there is no next value or it is of another type. sd-bus neither reads nor skips a
// text with a Unicode noncharacter: the cursor stays there, and every later read fails.
class MessageReader {
 public:
  // Starts at the first argument. The message outlives the reader.
  explicit MessageReader(const Message* message);

  [[nodiscard]] bool HasMoreData();
  // The D-Bus type code of the next value ('s', 'a', 'v', …); 0 at the end of the container.
  [[nodiscard]] char GetDataType();
  // The signature of the contents of the next container; empty if no container is next.
  [[nodiscard]] std::string GetContainerContents();

  [[nodiscard]] bool PopByte(uint8_t* value);
  [[nodiscard]] bool PopBool(bool* value);
  [[nodiscard]] bool PopInt16(int16_t* value);
  [[nodiscard]] bool PopUint16(uint16_t* value);
  [[nodiscard]] bool PopInt32(int32_t* value);
  [[nodiscard]] bool PopUint32(uint32_t* value);
  [[nodiscard]] bool PopInt64(int64_t* value);
  [[nodiscard]] bool PopUint64(uint64_t* value);
  [[nodiscard]] bool PopDouble(double* value);
  [[nodiscard]] bool PopString(std::string* value);
  [[nodiscard]] bool PopObjectPath(ObjectPath* value);
  [[nodiscard]] bool PopSignature(Signature* value);
  [[nodiscard]] bool PopFileDescriptor(FileDescriptor* value);
  // Copies an array of bytes into `bytes` (a container of characters or of uint8_t).
  template <typename Bytes>
  [[nodiscard]] bool PopBytes(Bytes* bytes) {
    const void* data = nullptr;
    size_t size = 0;
    std::vector<uint8_t> copy;
    if (!PopArrayOfBytes(&data, &size, &copy)) return false;
    const auto* const first = static_cast<const typename Bytes::value_type*>(data);
    *bytes = size == 0 ? Bytes() : Bytes(first, first + size);
    return true;
  }

  // Moves into an array 'a', variant 'v', structure 'r' or dictionary entry 'e' with the given
  // contents. False, without moving, if that is not the next value.
  [[nodiscard]] bool EnterContainer(char type, const std::string& contents);
  // Moves behind the current container, skipping its unread values. False if one of them can't be
  // skipped.
  bool ExitContainer();

 private:
  [[nodiscard]] bool PopBasic(char type, void* value);
  // Points `data` into the message or, if sd-bus can't read the array at once, into `copy`.
  [[nodiscard]] bool PopArrayOfBytes(const void** data, size_t* size, std::vector<uint8_t>* copy);

  sd_bus_message* const message_;
};

// Appends arguments in order. It is a fatal check that the message is not sealed and that texts are
// UTF-8.
class MessageWriter {
 public:
  explicit MessageWriter(const Message* message);
  // For a raw message of sd-bus, which outlives the writer.
  explicit MessageWriter(sd_bus_message* message) : message_(message) {}

  void AppendByte(uint8_t value);
  void AppendBool(bool value);
  void AppendInt16(int16_t value);
  void AppendUint16(uint16_t value);
  void AppendInt32(int32_t value);
  void AppendUint32(uint32_t value);
  void AppendInt64(int64_t value);
  void AppendUint64(uint64_t value);
  void AppendDouble(double value);
  void AppendString(const std::string& value);
  void AppendObjectPath(const ObjectPath& value);
  void AppendSignature(const Signature& value);
  void AppendBytes(const void* data, size_t size);

  // As in `MessageReader::EnterContainer`.
  void OpenContainer(char type, const std::string& contents);
  void CloseContainer();

 private:
  void AppendBasic(char type, const void* value);

  sd_bus_message* const message_;
};

}  // namespace dbus
