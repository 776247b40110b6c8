// The D-Bus encoding of C++ values: for each type its signature, reading and writing.
//
// `DBusType<T>` exists for the types in the D-Bus interfaces of this system; a variant is a
// `kestle::Any`.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "dbus/message.h"
#include "kestle/any.h"

namespace kestle::dbus_utils {

// Has `static std::string Signature()`, `static bool Read(dbus::MessageReader*, T*)` and
// `static void Write(dbus::MessageWriter*, const T&)`. `Read` returns false if the next value is
// of another type; what it stored until then is undefined.
template <typename T>
struct DBusType;

template <auto Pop, auto Append, char kCode, typename T>
struct BasicDBusType {
  [[nodiscard]] static std::string Signature() { return {kCode}; }
  [[nodiscard]] static bool Read(dbus::MessageReader* reader, T* value) {
    return (reader->*Pop)(value);
  }
  static void Write(dbus::MessageWriter* writer, const T& value) { (writer->*Append)(value); }
};

using Reader = dbus::MessageReader;
using Writer = dbus::MessageWriter;
template <>
struct DBusType<uint8_t> : BasicDBusType<&Reader::PopByte, &Writer::AppendByte, 'y', uint8_t> {};
template <>
struct DBusType<bool> : BasicDBusType<&Reader::PopBool, &Writer::AppendBool, 'b', bool> {};
template <>
struct DBusType<int32_t> : BasicDBusType<&Reader::PopInt32, &Writer::AppendInt32, 'i', int32_t> {};
template <>
struct DBusType<int64_t> : BasicDBusType<&Reader::PopInt64, &Writer::AppendInt64, 'x', int64_t> {};
template <>
struct DBusType<double> : BasicDBusType<&Reader::PopDouble, &Writer::AppendDouble, 'd', double> {};
template <>
struct DBusType<std::string>
    : BasicDBusType<&Reader::PopString, &Writer::AppendString, 's', std::string> {};

// A variant. Reads every D-Bus value as `kestle/any.h` describes. Writes the basic types, strings
// as `std::string`, object paths and `VariantDictionary`; any other held type is a fatal check.
template <>
struct DBusType<Any> {
  [[nodiscard]] static std::string Signature() { return "v"; }
  [[nodiscard]] static bool Read(Reader* reader, Any* value);
  static void Write(Writer* writer, const Any& value);
};

template <>
struct DBusType<std::vector<uint8_t>> {
  [[nodiscard]] static std::string Signature() { return "ay"; }
  [[nodiscard]] static bool Read(Reader* reader, std::vector<uint8_t>* value) {
    return reader->PopBytes(value);
  }
  static void Write(Writer* writer, const std::vector<uint8_t>& value) {
    writer->AppendBytes(value.data(), value.size());
  }
};

// A repeated key keeps its last value.
template <typename Key, typename Mapped>
struct DBusType<std::map<Key, Mapped>> {
  static std::string EntryContents() {
    return DBusType<Key>::Signature() + DBusType<Mapped>::Signature();
  }
  static std::string EntrySignature() { return "{" + EntryContents() + "}"; }
  [[nodiscard]] static std::string Signature() { return "a" + EntrySignature(); }

  [[nodiscard]] static bool Read(Reader* reader, std::map<Key, Mapped>* value) {
    if (!reader->EnterContainer('a', EntrySignature())) return false;
    while (reader->HasMoreData()) {
      std::pair<Key, Mapped> entry;
      if (!reader->EnterContainer('e', EntryContents()) ||
          !DBusType<Key>::Read(reader, &entry.first) ||
          !DBusType<Mapped>::Read(reader, &entry.second) || !reader->ExitContainer())
        return false;
      value->insert_or_assign(std::move(entry.first), std::move(entry.second));
    }
    return reader->ExitContainer();
  }
  static void Write(Writer* writer, const std::map<Key, Mapped>& value) {
    writer->OpenContainer('a', EntrySignature());
    for (const auto& [key, mapped] : value) {
      writer->OpenContainer('e', EntryContents());
      DBusType<Key>::Write(writer, key);
      DBusType<Mapped>::Write(writer, mapped);
      writer->CloseContainer();
    }
    writer->CloseContainer();
  }
};

}  // namespace kestle::dbus_utils
