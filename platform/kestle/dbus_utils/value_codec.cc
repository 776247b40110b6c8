#include "kestle/dbus_utils/value_codec.h"

#include "base/logging.h"

namespace kestle::dbus_utils {

namespace {

// Recursion is bounded: sd-bus limits the nesting of containers in a message.
bool ReadValue(Reader* reader, Any* value);

template <typename T>
bool ReadBasic(Reader* reader, bool (Reader::*pop)(T*), Any* value) {
  T read{};
  if (!(reader->*pop)(&read)) return false;
  *value = std::move(read);
  return true;
}

bool ReadItems(Reader* reader, char type, std::vector<Any>* items) {
  if (!reader->EnterContainer(type, reader->GetContainerContents())) return false;
  while (reader->HasMoreData()) {
    Any item;
    if (!ReadValue(reader, &item)) return false;
    items->push_back(std::move(item));
  }
  return reader->ExitContainer();
}

bool ReadDictionary(Reader* reader, Any* value) {
  Dictionary dictionary;
  if (!reader->EnterContainer('a', reader->GetContainerContents())) return false;
  while (reader->HasMoreData()) {
    std::pair<Any, Any> entry;
    if (!reader->EnterContainer('e', reader->GetContainerContents()) ||
        !ReadValue(reader, &entry.first) || !ReadValue(reader, &entry.second) ||
        !reader->ExitContainer())
      return false;
    dictionary.entries.push_back(std::move(entry));
  }
  *value = std::move(dictionary);
  return reader->ExitContainer();
}

template <typename T>
bool ReadTyped(Reader* reader, Any* value) {
  T typed;
  if (!DBusType<T>::Read(reader, &typed)) return false;
  *value = std::move(typed);
  return true;
}

bool ReadArray(Reader* reader, Any* value) {
  const std::string contents = reader->GetContainerContents();
  if (contents == "y") return ReadTyped<std::vector<uint8_t>>(reader, value);
  if (contents == "{sv}") return ReadTyped<VariantDictionary>(reader, value);
  if (contents.starts_with('{')) return ReadDictionary(reader, value);
  Array array;
  if (!ReadItems(reader, 'a', &array.items)) return false;
  *value = std::move(array);
  return true;
}

bool ReadStructure(Reader* reader, Any* value) {
  Structure structure;
  if (!ReadItems(reader, 'r', &structure.fields)) return false;
  *value = std::move(structure);
  return true;
}

bool ReadVariant(Reader* reader, Any* value) {
  return reader->EnterContainer('v', reader->GetContainerContents()) && ReadValue(reader, value) &&
         reader->ExitContainer();
}

bool ReadValue(Reader* reader, Any* value) {
  switch (reader->GetDataType()) {
    case 'y':
      return ReadBasic(reader, &Reader::PopByte, value);
    case 'b':
      return ReadBasic(reader, &Reader::PopBool, value);
    case 'n':
      return ReadBasic(reader, &Reader::PopInt16, value);
    case 'q':
      return ReadBasic(reader, &Reader::PopUint16, value);
    case 'i':
      return ReadBasic(reader, &Reader::PopInt32, value);
    case 'u':
      return ReadBasic(reader, &Reader::PopUint32, value);
    case 'x':
      return ReadBasic(reader, &Reader::PopInt64, value);
    case 't':
      return ReadBasic(reader, &Reader::PopUint64, value);
    case 'd':
      return ReadBasic(reader, &Reader::PopDouble, value);
    case 's':
      return ReadBasic(reader, &Reader::PopString, value);
    case 'o':
      return ReadBasic(reader, &Reader::PopObjectPath, value);
    case 'g':
      return ReadBasic(reader, &Reader::PopSignature, value);
    case 'h':
      return ReadBasic(reader, &Reader::PopFileDescriptor, value);
    case 'a':
      return ReadArray(reader, value);
    case 'r':
      return ReadStructure(reader, value);
    case 'v':
      return ReadVariant(reader, value);
    default:
      return false;
  }
}

// False, without writing, if the value is of another type.
template <typename T, typename Parameter>
bool WriteIf(Writer* writer, const Any& value, char code, void (Writer::*append)(Parameter)) {
  const T* const held = value.TryGet<T>();
  if (!held) return false;
  writer->OpenContainer('v', {code});
  (writer->*append)(*held);
  writer->CloseContainer();
  return true;
}

bool WriteDictionaryIf(Writer* writer, const Any& value) {
  const auto* const held = value.TryGet<VariantDictionary>();
  if (!held) return false;
  writer->OpenContainer('v', DBusType<VariantDictionary>::Signature());
  DBusType<VariantDictionary>::Write(writer, *held);
  writer->CloseContainer();
  return true;
}

}  // namespace

bool DBusType<Any>::Read(Reader* reader, Any* value) {
  return reader->GetDataType() == 'v' && ReadVariant(reader, value);
}

void DBusType<Any>::Write(Writer* writer, const Any& value) {
  const bool written = WriteIf<uint8_t>(writer, value, 'y', &Writer::AppendByte) ||
                       WriteIf<bool>(writer, value, 'b', &Writer::AppendBool) ||
                       WriteIf<int16_t>(writer, value, 'n', &Writer::AppendInt16) ||
                       WriteIf<uint16_t>(writer, value, 'q', &Writer::AppendUint16) ||
                       WriteIf<int32_t>(writer, value, 'i', &Writer::AppendInt32) ||
                       WriteIf<uint32_t>(writer, value, 'u', &Writer::AppendUint32) ||
                       WriteIf<int64_t>(writer, value, 'x', &Writer::AppendInt64) ||
                       WriteIf<uint64_t>(writer, value, 't', &Writer::AppendUint64) ||
                       WriteIf<double>(writer, value, 'd', &Writer::AppendDouble) ||
                       WriteIf<std::string>(writer, value, 's', &Writer::AppendString) ||
                       WriteIf<dbus::ObjectPath>(writer, value, 'o', &Writer::AppendObjectPath) ||
                       WriteDictionaryIf(writer, value);
  CHECK(written) << "No D-Bus form for a value of type "
                 << GetUndecoratedTypeNameForTag(value.GetTypeTag());
}

}  // namespace kestle::dbus_utils
