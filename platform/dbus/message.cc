#include "dbus/message.h"

#include <systemd/sd-bus.h>

#include <cerrno>

#include "base/logging.h"

namespace dbus {

namespace {

std::string OrEmpty(const char* text) { return text ? text : ""; }

}  // namespace

void MessageDeleter::operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }

MessagePtr Reference(sd_bus_message* raw) { return MessagePtr(sd_bus_message_ref(raw)); }

std::string Message::GetSender() const { return OrEmpty(sd_bus_message_get_sender(raw())); }
std::string Message::GetPath() const { return OrEmpty(sd_bus_message_get_path(raw())); }
std::string Message::GetInterface() const { return OrEmpty(sd_bus_message_get_interface(raw())); }
std::string Message::GetMember() const { return OrEmpty(sd_bus_message_get_member(raw())); }

uint64_t Message::GetSerial() const {
  uint64_t serial = 0;
  sd_bus_message_get_cookie(raw(), &serial);
  return serial;
}

bool Message::HasSignature(const std::string& signature) const {
  return sd_bus_message_has_signature(raw(), signature.c_str()) > 0;
}

uint64_t Response::GetReplySerial() const {
  uint64_t serial = 0;
  sd_bus_message_get_reply_cookie(raw(), &serial);
  return serial;
}

bool Response::IsError() const { return sd_bus_message_is_method_error(raw(), nullptr) > 0; }

std::string Response::GetErrorName() const {
  const sd_bus_error* const error = sd_bus_message_get_error(raw());
  return error ? OrEmpty(error->name) : "";
}

std::string Response::GetErrorMessage() const {
  const sd_bus_error* const error = sd_bus_message_get_error(raw());
  return error ? OrEmpty(error->message) : "";
}

MessageReader::MessageReader(const Message* message) : message_(message->raw()) {
  sd_bus_message_rewind(message_, /*complete=*/true);
}

bool MessageReader::HasMoreData() {
  return sd_bus_message_at_end(message_, /*complete=*/false) == 0;
}

char MessageReader::GetDataType() {
  char type = 0;
  return sd_bus_message_peek_type(message_, &type, nullptr) > 0 ? type : '\0';
}

std::string MessageReader::GetContainerContents() {
  char type = 0;
  const char* contents = nullptr;
  return sd_bus_message_peek_type(message_, &type, &contents) > 0 ? OrEmpty(contents) : "";
}

bool MessageReader::PopByte(uint8_t* value) { return PopBasic(SD_BUS_TYPE_BYTE, value); }
bool MessageReader::PopInt16(int16_t* value) { return PopBasic(SD_BUS_TYPE_INT16, value); }
bool MessageReader::PopUint16(uint16_t* value) { return PopBasic(SD_BUS_TYPE_UINT16, value); }
bool MessageReader::PopInt32(int32_t* value) { return PopBasic(SD_BUS_TYPE_INT32, value); }
bool MessageReader::PopUint32(uint32_t* value) { return PopBasic(SD_BUS_TYPE_UINT32, value); }
bool MessageReader::PopInt64(int64_t* value) { return PopBasic(SD_BUS_TYPE_INT64, value); }
bool MessageReader::PopUint64(uint64_t* value) { return PopBasic(SD_BUS_TYPE_UINT64, value); }
bool MessageReader::PopDouble(double* value) { return PopBasic(SD_BUS_TYPE_DOUBLE, value); }

bool MessageReader::PopBool(bool* value) {
  int read = 0;
  if (!PopBasic(SD_BUS_TYPE_BOOLEAN, &read)) return false;
  *value = read != 0;
  return true;
}

bool MessageReader::PopString(std::string* value) {
  const char* text = nullptr;
  if (!PopBasic(SD_BUS_TYPE_STRING, &text)) return false;
  *value = text;
  return true;
}

bool MessageReader::PopObjectPath(ObjectPath* value) {
  const char* text = nullptr;
  if (!PopBasic(SD_BUS_TYPE_OBJECT_PATH, &text)) return false;
  *value = ObjectPath(text);
  return true;
}

bool MessageReader::PopSignature(Signature* value) {
  const char* text = nullptr;
  if (!PopBasic(SD_BUS_TYPE_SIGNATURE, &text)) return false;
  *value = Signature(text);
  return true;
}

bool MessageReader::PopFileDescriptor(FileDescriptor* value) {
  int fd = -1;
  if (!PopBasic(SD_BUS_TYPE_UNIX_FD, &fd)) return false;
  *value = FileDescriptor();
  return true;
}

bool MessageReader::EnterContainer(char type, const std::string& contents) {
  return sd_bus_message_enter_container(message_, type, contents.c_str()) > 0;
}

bool MessageReader::ExitContainer() {
  while (HasMoreData())
    if (sd_bus_message_skip(message_, nullptr) < 0) return false;
  return sd_bus_message_exit_container(message_) >= 0;
}

bool MessageReader::PopBasic(char type, void* value) {
  return sd_bus_message_read_basic(message_, type, value) > 0;
}

bool MessageReader::PopArrayOfBytes(const void** data, size_t* size, std::vector<uint8_t>* copy) {
  if (GetDataType() != SD_BUS_TYPE_ARRAY || GetContainerContents() != "y") return false;
  const int result = sd_bus_message_read_array(message_, SD_BUS_TYPE_BYTE, data, size);
  // sd-bus does not read arrays of a message in foreign byte order at once, not even of bytes.
  if (result != -EOPNOTSUPP) return result >= 0;
  if (!EnterContainer(SD_BUS_TYPE_ARRAY, "y")) return false;
  for (uint8_t byte = 0; PopBasic(SD_BUS_TYPE_BYTE, &byte);) copy->push_back(byte);
  *data = copy->data();
  *size = copy->size();
  return ExitContainer();
}

MessageWriter::MessageWriter(const Message* message) : message_(message->raw()) {}

void MessageWriter::AppendByte(uint8_t value) { AppendBasic(SD_BUS_TYPE_BYTE, &value); }
void MessageWriter::AppendInt16(int16_t value) { AppendBasic(SD_BUS_TYPE_INT16, &value); }
void MessageWriter::AppendUint16(uint16_t value) { AppendBasic(SD_BUS_TYPE_UINT16, &value); }
void MessageWriter::AppendInt32(int32_t value) { AppendBasic(SD_BUS_TYPE_INT32, &value); }
void MessageWriter::AppendUint32(uint32_t value) { AppendBasic(SD_BUS_TYPE_UINT32, &value); }
void MessageWriter::AppendInt64(int64_t value) { AppendBasic(SD_BUS_TYPE_INT64, &value); }
void MessageWriter::AppendUint64(uint64_t value) { AppendBasic(SD_BUS_TYPE_UINT64, &value); }
void MessageWriter::AppendDouble(double value) { AppendBasic(SD_BUS_TYPE_DOUBLE, &value); }

void MessageWriter::AppendBool(bool value) {
  const int written = value ? 1 : 0;
  AppendBasic(SD_BUS_TYPE_BOOLEAN, &written);
}

void MessageWriter::AppendString(const std::string& value) {
  // sd-bus would append only the part before it.
  CHECK(value.find('\0') == std::string::npos) << "Unable to append a text with a zero byte";
  AppendBasic(SD_BUS_TYPE_STRING, value.c_str());
}

void MessageWriter::AppendObjectPath(const ObjectPath& value) {
  AppendBasic(SD_BUS_TYPE_OBJECT_PATH, value.value().c_str());
}

void MessageWriter::AppendSignature(const Signature& value) {
  AppendBasic(SD_BUS_TYPE_SIGNATURE, value.value().c_str());
}

void MessageWriter::AppendBytes(const void* data, size_t size) {
  const int result = sd_bus_message_append_array(message_, SD_BUS_TYPE_BYTE, data, size);
  CHECK(result >= 0) << "Unable to append " << size << " bytes to a message";
}

void MessageWriter::OpenContainer(char type, const std::string& contents) {
  const int result = sd_bus_message_open_container(message_, type, contents.c_str());
  CHECK(result >= 0) << "Unable to open a container '" << type << "' of " << contents;
}

void MessageWriter::CloseContainer() {
  const int result = sd_bus_message_close_container(message_);
  CHECK(result >= 0) << "Unable to close a container: its contents are not whole";
}

void MessageWriter::AppendBasic(char type, const void* value) {
  const int result = sd_bus_message_append_basic(message_, type, value);
  CHECK(result >= 0) << "Unable to append a value of type '" << type << "' to a message";
}

}  // namespace dbus
