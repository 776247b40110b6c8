#include "base/values.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "base/logging.h"

namespace base {

Value::Value(nlohmann::json json) : json_(std::make_unique<nlohmann::json>(std::move(json))) {}
Value::~Value() = default;
Value::Value(Value&&) noexcept = default;
Value& Value::operator=(Value&&) noexcept = default;

nlohmann::json Value::Release() && { return std::move(*json_); }

ListValue::ListValue() : Value(nlohmann::json::array()) {}

void ListValue::Append(Value value) { json().push_back(std::move(value).Release()); }

size_t ListValue::size() const { return json().size(); }

DictionaryValue::DictionaryValue() : Value(nlohmann::json::object()) {}

DictionaryValue::DictionaryValue(nlohmann::json json) : Value(std::move(json)) {
  CHECK(this->json().is_object());
}

nlohmann::json& DictionaryValue::At(const std::string& path) {
  nlohmann::json* place = &json();
  size_t start = 0;
  for (size_t dot = path.find('.'); dot != std::string::npos; dot = path.find('.', start)) {
    place = &(*place)[path.substr(start, dot - start)];
    if (!place->is_object()) *place = nlohmann::json::object();
    start = dot + 1;
  }
  return (*place)[path.substr(start)];
}

void DictionaryValue::SetString(const std::string& path, const std::string& value) {
  At(path) = value;
}

void DictionaryValue::SetInteger(const std::string& path, int value) { At(path) = value; }

void DictionaryValue::SetDouble(const std::string& path, double value) { At(path) = value; }

void DictionaryValue::SetBoolean(const std::string& path, bool value) { At(path) = value; }

void DictionaryValue::Set(const std::string& path, Value value) {
  At(path) = std::move(value).Release();
}

void DictionaryValue::SetStringWithoutPathExpansion(const std::string& key,
                                                    const std::string& value) {
  json()[key] = value;
}

bool DictionaryValue::empty() const { return json().empty(); }

bool DictionaryValue::GetString(const std::string& path, std::string* value) const {
  const nlohmann::json* place = &json();
  size_t start = 0;
  while (true) {
    const size_t dot = path.find('.', start);
    if (!place->is_object()) return false;
    const auto member = place->find(path.substr(start, dot - start));
    if (member == place->end()) return false;
    place = &*member;
    if (dot == std::string::npos) break;
    start = dot + 1;
  }
  if (!place->is_string()) return false;
  *value = place->get_ref<const std::string&>();
  return true;
}

}  // namespace base
