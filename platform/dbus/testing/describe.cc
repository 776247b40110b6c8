#include "dbus/testing/describe.h"

#include <sstream>

#include "base/logging.h"

namespace dbus {

namespace {

std::string DescribeNext(MessageReader* reader);

std::vector<std::string> DescribeRest(MessageReader* reader) {
  std::vector<std::string> parts;
  while (reader->HasMoreData()) parts.push_back(DescribeNext(reader));
  return parts;
}

std::string DescribeContainer(MessageReader* reader, char type) {
  const std::string contents = reader->GetContainerContents();
  CHECK(reader->EnterContainer(type, contents));
  const std::vector<std::string> parts = DescribeRest(reader);
  reader->ExitContainer();
  if (type == 'e') return parts.at(0) + ": " + parts.at(1);
  if (type == 'r') return "(" + Join(parts) + ")";
  if (type == 'v') return Join(parts);
  return contents.starts_with('{') ? "{" + Join(parts) + "}" : "[" + Join(parts) + "]";
}

template <typename T>
std::string DescribeNumber(MessageReader* reader, bool (MessageReader::*pop)(T*)) {
  T value{};
  (reader->*pop)(&value);
  std::ostringstream text;
  text << +value;
  return text.str();
}

std::string DescribeText(MessageReader* reader, char type) {
  std::string text;
  ObjectPath path;
  Signature signature;
  if (type == 's') {
    CHECK(reader->PopString(&text));
  } else if (type == 'o') {
    CHECK(reader->PopObjectPath(&path));
    text = path.value();
  } else {
    CHECK(reader->PopSignature(&signature));
    text = signature.value();
  }
  return '"' + text + '"';
}

std::string DescribeBool(MessageReader* reader) {
  bool value = false;
  CHECK(reader->PopBool(&value));
  return value ? "true" : "false";
}

std::string DescribeFileDescriptor(MessageReader* reader) {
  FileDescriptor ignored;
  CHECK(reader->PopFileDescriptor(&ignored));
  return "fd";
}

std::string DescribeNext(MessageReader* reader) {
  const char type = reader->GetDataType();
  switch (type) {
    case 'y':
      return DescribeNumber(reader, &MessageReader::PopByte);
    case 'n':
      return DescribeNumber(reader, &MessageReader::PopInt16);
    case 'q':
      return DescribeNumber(reader, &MessageReader::PopUint16);
    case 'i':
      return DescribeNumber(reader, &MessageReader::PopInt32);
    case 'u':
      return DescribeNumber(reader, &MessageReader::PopUint32);
    case 'x':
      return DescribeNumber(reader, &MessageReader::PopInt64);
    case 't':
      return DescribeNumber(reader, &MessageReader::PopUint64);
    case 'd':
      return DescribeNumber(reader, &MessageReader::PopDouble);
    case 'b':
      return DescribeBool(reader);
    case 'h':
      return DescribeFileDescriptor(reader);
    case 's':
    case 'o':
    case 'g':
      return DescribeText(reader, type);
    default:
      return DescribeContainer(reader, type);
  }
}

}  // namespace

std::vector<std::string> DescribeArguments(const Message& message) {
  MessageReader reader(&message);
  return DescribeRest(&reader);
}

std::string Join(const std::vector<std::string>& parts) {
  std::string joined;
  for (const std::string& part : parts) joined += (joined.empty() ? "" : ", ") + part;
  return joined;
}

}  // namespace dbus
