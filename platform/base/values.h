// JSON values, for building request bodies and parsing responses.
//
// Values are moved, not shared: a container owns its values. Invalid UTF-8 is stored unchanged and
// written as U+FFFD.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace base {

class Value {
 public:
  struct Member;
  using List = std::vector<Value>;
  // In byte order of their keys, which are unique.
  using Members = std::vector<Member>;
  using Data = std::variant<std::nullptr_t, bool, int, double, std::string, List, Members>;

  // Null.
  Value();
  explicit Value(Data data);
  ~Value();
  Value(Value&&) noexcept;
  Value& operator=(Value&&) noexcept;

  // For the platform's reader and writer.
  [[nodiscard]] const Data& data() const { return data_; }

 private:
  friend class ListValue;
  friend class DictionaryValue;

  // Creates the member, and makes this an object, if needed.
  Value& At(std::string_view key);
  // Null if this is not an object with such a member.
  [[nodiscard]] const Value* Find(std::string_view key) const;

  Data data_;
};

struct Value::Member {
  explicit Member(std::string_view key) : key(key) {}

  std::string key;
  Value value;
};

class ListValue : public Value {
 public:
  ListValue();
  void Append(Value&& value);
};

// An object. Operations take a path: "a.b" is the member "b" of the member "a". Setters create what
// is missing, and replace an existing member. In operations "WithoutPathExpansion" a dot is part of
// the key.
class DictionaryValue : public Value {
 public:
  DictionaryValue();
  explicit DictionaryValue(Members members);

  void SetString(std::string_view path, std::string value);
  void SetInteger(std::string_view path, int value);
  void SetDouble(std::string_view path, double value);
  void SetBoolean(std::string_view path, bool value);
  void Set(std::string_view path, Value&& value);
  void SetStringWithoutPathExpansion(std::string_view key, std::string value);

  // If the member is absent or not a string, returns false and leaves `value` unchanged.
  [[nodiscard]] bool GetString(std::string_view path, std::string* value) const;

 private:
  Value& AtPath(std::string_view path);
};

}  // namespace base
