// JSON values, for building request bodies and parsing responses.
//
// A value is its JSON text, so that a request is serialised once, while it is built: a tree of
// values costs an allocation for each, and its writing and freeing takes as long as building it.
// Values are moved, not shared: a container owns its values. Invalid UTF-8 becomes U+FFFD.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

#include "base/json_text.h"

namespace base {

class Value {
 public:
  // Null.
  Value() : Value(JsonText("null")) {}
  explicit Value(bool value) { text_.Add(value); }
  explicit Value(int value) { text_.Add(value); }
  explicit Value(double value) { text_.Add(value); }
  explicit Value(std::string_view value) { text_.Add(value); }
  explicit Value(const char* value) = delete;  // Would be a bool.
  ~Value() = default;
  Value(Value&&) noexcept = default;
  Value& operator=(Value&&) noexcept = default;

  // Frees the room for more members, for a value that is kept.
  void ShrinkToFit() { text_.ShrinkToFit(); }

 protected:
  // Without the bracket at the end of a list or an object, so that it can be appended to.
  explicit Value(JsonText text) : text_(std::move(text)) {}

  // The missing bracket; empty if the value has none.
  [[nodiscard]] std::string_view Closing() const;
  // The whole text, for another value. Called once.
  JsonText&& Close();

  JsonText text_;

 private:
  friend class JSONWriter;
  friend class ListValue;
  friend class DictionaryValue;
};

class ListValue : public Value {
 public:
  ListValue() : Value(JsonText('[')) {}
  void Append(Value&& value);
};

// An object, with its members in byte order of their keys, which are unique. Operations take a
// path: "a.b" is the member "b" of the member "a". Setters create what is missing, and replace an
// existing member. In operations "WithoutPathExpansion" a dot is part of the key.
//
// Setting a member is fastest in the order of the keys: others are inserted into the text. Keys
// must be valid UTF-8: others are written as JSON, but in no order, and may be written twice.
class DictionaryValue : public Value {
 public:
  DictionaryValue() : Value(JsonText('{')) {}

  void SetString(std::string_view path, std::string_view value);
  void SetInteger(std::string_view path, int value);
  void SetDouble(std::string_view path, double value);
  void SetBoolean(std::string_view path, bool value);
  void Set(std::string_view path, Value&& value);
  void SetStringWithoutPathExpansion(std::string_view key, std::string_view value);
  void SetWithoutPathExpansion(std::string_view key, Value&& value);

  // If the member is absent or not a string, returns false and leaves `value` unchanged.
  [[nodiscard]] bool GetString(std::string_view path, std::string* value) const;

 private:
  // Of an object's text, without its closing bracket.
  explicit DictionaryValue(JsonText text);

  // `Content` is a type that `JsonText` adds.
  template <typename Content>
  void SetAt(std::string_view path, Content&& value);
  template <typename Content>
  void SetMember(std::string_view key, Content&& value);
  // If `key` is greater than all others, writes it and returns true: its value has to follow.
  bool AppendKey(std::string_view key);
  // Writes a new object with the value at `path`.
  template <typename Content>
  void AppendNested(std::string_view path, Content&& value);
  // For a key that is not greater than all others.
  void Insert(std::string_view key, JsonText&& value);
  // Takes the member, which becomes null, for the caller to change and insert; an empty object if
  // it is none.
  [[nodiscard]] DictionaryValue TakeObject(std::string_view key);

  // The greatest one; meaningless while there is no member.
  std::string last_key_;
};

}  // namespace base
