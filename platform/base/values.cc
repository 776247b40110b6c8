#include "base/values.h"

#include <algorithm>

namespace base {

namespace {

// Reserved at the first member, since objects have few. Room for the four members of a metric point
// would take more memory than the point's other three objects.
constexpr size_t kUsualMembers = 2;

// The position of the member with this key, or the one to insert it at.
auto Place(auto& members, std::string_view key) {
  return std::lower_bound(members.begin(), members.end(), key,
                          [](const Value::Member& member, std::string_view key) {
                            return member.key.compare(key) < 0;
                          });
}

}  // namespace

Value::Value() = default;
Value::Value(Data data) : data_(std::move(data)) {}
Value::~Value() = default;
Value::Value(Value&&) noexcept = default;
Value& Value::operator=(Value&&) noexcept = default;

Value& Value::At(std::string_view key) {
  if (!std::holds_alternative<Members>(data_)) data_.emplace<Members>();
  Members& members = *std::get_if<Members>(&data_);
  if (members.empty()) members.reserve(kUsualMembers);
  // Keys are mostly added in order.
  if (members.empty() || members.back().key.compare(key) < 0)
    return members.emplace_back(key).value;
  auto place = Place(members, key);
  if (place->key != key) place = members.emplace(place, key);
  return place->value;
}

const Value* Value::Find(std::string_view key) const {
  const auto* const members = std::get_if<Members>(&data_);
  if (members == nullptr) return nullptr;
  const auto place = Place(*members, key);
  return place == members->end() || place->key != key ? nullptr : &place->value;
}

ListValue::ListValue() : Value(List()) {}

void ListValue::Append(Value&& value) { std::get_if<List>(&data_)->push_back(std::move(value)); }

DictionaryValue::DictionaryValue() : DictionaryValue(Members()) {}

DictionaryValue::DictionaryValue(Members members) : Value(std::move(members)) {}

Value& DictionaryValue::AtPath(std::string_view path) {
  Value* place = this;
  for (size_t dot = path.find('.'); dot != std::string_view::npos; dot = path.find('.')) {
    place = &place->At(path.substr(0, dot));
    path.remove_prefix(dot + 1);
  }
  return place->At(path);
}

void DictionaryValue::SetString(std::string_view path, std::string value) {
  AtPath(path).data_ = std::move(value);
}

void DictionaryValue::SetInteger(std::string_view path, int value) { AtPath(path).data_ = value; }

void DictionaryValue::SetDouble(std::string_view path, double value) { AtPath(path).data_ = value; }

void DictionaryValue::SetBoolean(std::string_view path, bool value) { AtPath(path).data_ = value; }

void DictionaryValue::Set(std::string_view path, Value&& value) { AtPath(path) = std::move(value); }

void DictionaryValue::SetStringWithoutPathExpansion(std::string_view key, std::string value) {
  At(key).data_ = std::move(value);
}

bool DictionaryValue::GetString(std::string_view path, std::string* value) const {
  const Value* place = this;
  for (size_t dot = path.find('.'); dot != std::string_view::npos; dot = path.find('.')) {
    place = place->Find(path.substr(0, dot));
    if (place == nullptr) return false;
    path.remove_prefix(dot + 1);
  }
  place = place->Find(path);
  const auto* const text = place == nullptr ? nullptr : std::get_if<std::string>(&place->data_);
  if (text == nullptr) return false;
  *value = *text;
  return true;
}

}  // namespace base
