// JSON values: what a request body is built from and a response is parsed to.
//
// Values are moved, not shared: a value put into a container belongs to the container. Text that is
// not UTF-8 is kept as it is and becomes U+FFFD when it is written.
#pragma once

#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace base {

class Value {
 public:
  explicit Value(nlohmann::json json);
  ~Value();
  Value(Value&&) noexcept;
  Value& operator=(Value&&) noexcept;

  // For the platform's reader and writer.
  const nlohmann::json& json() const { return *json_; }

 protected:
  nlohmann::json& json() { return *json_; }
  nlohmann::json Release() &&;

 private:
  friend class ListValue;
  friend class DictionaryValue;

  std::unique_ptr<nlohmann::json> json_;
};

class ListValue : public Value {
 public:
  ListValue();
  void Append(Value value);
  size_t size() const;
};

// An object. The plain operations take a path: "a.b" is the member "b" of the member "a", which
// they create when it is not there. The operations "WithoutPathExpansion" take the key as it
// stands, dots and all. A member that is there already is replaced.
class DictionaryValue : public Value {
 public:
  DictionaryValue();
  // Precondition: `json` is an object.
  explicit DictionaryValue(nlohmann::json json);

  void SetString(const std::string& path, const std::string& value);
  void SetInteger(const std::string& path, int value);
  void SetDouble(const std::string& path, double value);
  void SetBoolean(const std::string& path, bool value);
  void Set(const std::string& path, Value value);
  void SetStringWithoutPathExpansion(const std::string& key, const std::string& value);

  bool empty() const;
  // Reads a string member. When it is absent or no string, returns false and leaves `value` alone.
  bool GetString(const std::string& path, std::string* value) const;

 private:
  nlohmann::json& At(const std::string& path);
};

}  // namespace base
