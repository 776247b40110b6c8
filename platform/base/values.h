// JSON values: what a request body is built from and a response is parsed to.
//
// Values are moved, not shared: a value put into a container belongs to the container. Text that is
// not UTF-8 is kept as it is and becomes U+FFFD when it is written.
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
  // In byte order of their keys, each of which is there once.
  using Members = std::vector<Member>;
  using Data = std::variant<std::nullptr_t, bool, int, double, std::string, List, Members>;

  // Null.
  Value();
  explicit Value(Data data);
  ~Value();
  Value(Value&&) noexcept;
  Value& operator=(Value&&) noexcept;

  // For the platform's reader and writer.
  const Data& data() const { return data_; }

 private:
  friend class ListValue;
  friend class DictionaryValue;

  // Makes this an object with such a member, when it is not yet one.
  Value& At(std::string_view key);
  // Null when this is no object with such a member.
  const Value* Find(std::string_view key) const;

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

// An object. The plain operations take a path: "a.b" is the member "b" of the member "a", which
// they create when it is not there. The operations "WithoutPathExpansion" take the key as it
// stands, dots and all. A member that is there already is replaced.
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

  // Reads a string member. When it is absent or no string, returns false and leaves `value` alone.
  [[nodiscard]] bool GetString(std::string_view path, std::string* value) const;

 private:
  Value& AtPath(std::string_view path);
};

}  // namespace base
