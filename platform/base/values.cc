#include "base/values.h"

#include <optional>
#include <utility>

namespace base {

namespace {

// In an outline. Of members, without their object's brackets.
struct Range {
  size_t begin;
  size_t end;
};

struct Member {
  std::string key;
  size_t begin;  // Of its key.
  size_t value;
  size_t end;  // The separator, or the end of the members.
};

constexpr size_t kFirstMember = 1;

// All members of an object that lacks its closing bracket.
Range AllMembers(const JsonText& object) { return {kFirstMember, object.Outline().size()}; }

size_t EndOfValue(std::string_view outline, size_t begin) {
  size_t depth = 0;
  size_t end = begin;
  while (end < outline.size() && (depth > 0 || outline[end] != ',')) {
    const char character = outline[end];
    if (character == '{' || character == '[') ++depth;
    if (character == '}' || character == ']') --depth;
    end = character == '"' ? EndOfString(outline, end) : end + 1;
  }
  return end;
}

Member FirstMember(const JsonText& text, Range members) {
  const std::string_view outline = text.Outline().substr(0, members.end);
  const size_t value = EndOfString(outline, members.begin) + 1;
  return {text.StringAt(members.begin), members.begin, value, EndOfValue(outline, value)};
}

// The first member whose key is not less; at the end of the members if there is none.
Member FindPlace(const JsonText& text, Range members, std::string_view key) {
  while (members.begin < members.end) {
    Member member = FirstMember(text, members);
    if (member.key >= key) return member;
    members.begin = member.end + 1;
  }
  return {{}, members.end, members.end, members.end};
}

std::optional<Range> FindValue(const JsonText& text, Range members, std::string_view key) {
  const Member place = FindPlace(text, members, key);
  if (place.begin >= members.end || place.key != key) return std::nullopt;
  return Range{place.value, place.end};
}

}  // namespace

std::string_view Value::Closing() const {
  const char first = text_.front();
  return first == '{' ? "}" : first == '[' ? "]" : "";
}

JsonText&& Value::Close() {
  if (const std::string_view closing = Closing(); !closing.empty()) text_.AddRaw(closing.front());
  return std::move(text_);
}

void ListValue::Append(Value&& value) {
  if (!text_.IsOneCharacter()) text_.AddRaw(',');
  text_.Add(value.Close());
}

DictionaryValue::DictionaryValue(JsonText text) : Value(std::move(text)) {
  Range members = AllMembers(text_);
  while (members.begin < members.end) {
    Member member = FirstMember(text_, members);
    last_key_ = std::move(member.key);
    members.begin = member.end + 1;
  }
}

bool DictionaryValue::AppendKey(std::string_view key) {
  if (!text_.IsOneCharacter()) {
    if (key <= last_key_) return false;
    text_.AddRaw(',');
  }
  text_.Add(key);
  text_.AddRaw(':');
  // Costs less than an assignment.
  last_key_.clear();
  last_key_.append(key);
  return true;
}

void DictionaryValue::Insert(std::string_view key, JsonText&& value) {
  const Member place = FindPlace(text_, AllMembers(text_), key);
  const bool replaces = place.key == key;
  JsonText rest = text_.CutFrom(place.begin);
  if (replaces) rest = rest.CutFrom(place.end - place.begin);
  // A greater key follows, except if the last key is less now that its invalid UTF-8 is replaced.
  const bool is_last = rest.Outline().empty();
  if (!replaces && is_last) text_.AddRaw(',');
  text_.Add(key);
  text_.AddRaw(':');
  text_.Add(std::move(value));
  if (!replaces && !is_last) text_.AddRaw(',');
  text_.Add(std::move(rest));
}

DictionaryValue DictionaryValue::TakeObject(std::string_view key) {
  const std::optional<Range> found = FindValue(text_, AllMembers(text_), key);
  if (!found || text_.Outline()[found->begin] != '{') return {};
  JsonText rest = text_.CutFrom(found->end);
  JsonText object = text_.CutFrom(found->begin);
  text_.AddRaw("null");
  text_.Add(std::move(rest));
  object.DropLast();
  return DictionaryValue(std::move(object));
}

template <typename Content>
void DictionaryValue::SetMember(std::string_view key, Content&& value) {
  if (AppendKey(key)) return text_.Add(std::forward<Content>(value));
  JsonText text;
  text.Add(std::forward<Content>(value));
  Insert(key, std::move(text));
}

template <typename Content>
void DictionaryValue::SetAt(std::string_view path, Content&& value) {
  const size_t dot = path.find('.');
  if (dot == std::string_view::npos) return SetMember(path, std::forward<Content>(value));
  const std::string_view key = path.substr(0, dot);
  path.remove_prefix(dot + 1);
  if (AppendKey(key)) return AppendNested(path, std::forward<Content>(value));
  DictionaryValue object = TakeObject(key);
  object.SetAt(path, std::forward<Content>(value));
  Insert(key, object.Close());
}

template <typename Content>
void DictionaryValue::AppendNested(std::string_view path, Content&& value) {
  const size_t dot = path.find('.');
  text_.AddRaw('{');
  text_.Add(path.substr(0, dot));
  text_.AddRaw(':');
  if (dot == std::string_view::npos)
    text_.Add(std::forward<Content>(value));
  else
    AppendNested(path.substr(dot + 1), std::forward<Content>(value));
  text_.AddRaw('}');
}

void DictionaryValue::SetString(std::string_view path, std::string_view value) {
  SetAt(path, value);
}

void DictionaryValue::SetInteger(std::string_view path, int value) { SetAt(path, value); }

void DictionaryValue::SetDouble(std::string_view path, double value) { SetAt(path, value); }

void DictionaryValue::SetBoolean(std::string_view path, bool value) { SetAt(path, value); }

void DictionaryValue::Set(std::string_view path, Value&& value) { SetAt(path, value.Close()); }

void DictionaryValue::SetStringWithoutPathExpansion(std::string_view key, std::string_view value) {
  SetMember(key, value);
}

void DictionaryValue::SetWithoutPathExpansion(std::string_view key, Value&& value) {
  SetMember(key, value.Close());
}

bool DictionaryValue::GetString(std::string_view path, std::string* value) const {
  Range members = AllMembers(text_);
  for (size_t dot = path.find('.'); dot != std::string_view::npos; dot = path.find('.')) {
    const std::optional<Range> object = FindValue(text_, members, path.substr(0, dot));
    if (!object || text_.Outline()[object->begin] != '{') return false;
    members = {object->begin + 1, object->end - 1};
    path.remove_prefix(dot + 1);
  }
  const std::optional<Range> found = FindValue(text_, members, path);
  if (!found || !text_.IsStringAt(found->begin)) return false;
  *value = text_.StringAt(found->begin);
  return true;
}

}  // namespace base
