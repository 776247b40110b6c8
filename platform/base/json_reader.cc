#include <map>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "base/json.h"

namespace base {

namespace {

// Builds the value from the parser's events, in linear time except for sorting members. The
// library's own parser with a filter for the depth searches all earlier siblings at the end of each
// object: a megabyte of "{}," took a minute.
class Builder : public nlohmann::json::json_sax_t {
 public:
  // The parsed object; null if the text is not an object.
  std::unique_ptr<DictionaryValue> TakeObject();

  bool null() override { return Put(Value()); }
  bool boolean(bool value) override { return Put(Value(value)); }
  bool number_integer(int64_t value) override { return PutNumber(static_cast<double>(value)); }
  bool number_unsigned(uint64_t value) override { return PutNumber(static_cast<double>(value)); }
  bool number_float(double value, const std::string& /*text*/) override { return PutNumber(value); }
  bool string(std::string& value) override { return Put(Value(std::move(value))); }
  // JSON has no binary values.
  bool binary(nlohmann::json::binary_t& /*value*/) override { return false; }
  bool start_object(size_t /*size*/) override { return Start(Value::Members()); }
  bool key(std::string& name) override;
  bool end_object() override;
  bool start_array(size_t /*size*/) override { return Start(Value::List()); }
  bool end_array() override { return End(); }
  bool parse_error(size_t /*position*/, const std::string& /*token*/,
                   const nlohmann::json::exception& /*error*/) override {
    return false;
  }

 private:
  // All numbers become doubles.
  bool PutNumber(double value) { return Put(Value(value)); }
  bool Put(Value value);
  bool Start(Value::Data container);
  bool End();

  // The members of the innermost container; null if it is a list or there is none.
  Value::Members* members() {
    return open_.empty() ? nullptr : std::get_if<Value::Members>(&open_.back());
  }

  // The open containers, the innermost last. The members of an open object are in the order of the
  // text; the last one may have its key only.
  std::vector<Value::Data> open_;
  // The number of open containers below `kMaxJsonDepth`.
  size_t left_out_ = 0;
  Value::Data root_;
};

bool Builder::Put(Value value) {
  if (left_out_ > 0 || open_.empty()) return true;
  if (members())
    members()->back().value = std::move(value);
  else
    std::get_if<Value::List>(&open_.back())->push_back(std::move(value));
  return true;
}

bool Builder::key(std::string& name) {
  if (left_out_ == 0) members()->emplace_back(name);
  return true;
}

bool Builder::Start(Value::Data container) {
  if (left_out_ == 0 && open_.size() < kMaxJsonDepth) {
    open_.push_back(std::move(container));
    return true;
  }
  if (left_out_ == 0 && members()) members()->pop_back();
  ++left_out_;
  return true;
}

bool Builder::End() {
  if (left_out_ > 0) {
    --left_out_;
    return true;
  }
  root_ = std::move(open_.back());
  open_.pop_back();
  if (!open_.empty()) Put(Value(std::move(root_)));
  return true;
}

bool Builder::end_object() {
  if (left_out_ > 0) return End();
  Value::Members& read = *members();
  // Of equal keys the last one counts.
  std::map<std::string, Value> sorted;
  for (Value::Member& member : read)
    sorted.insert_or_assign(std::move(member.key), std::move(member.value));
  read.clear();
  for (auto& [key, value] : sorted) read.emplace_back(key).value = std::move(value);
  return End();
}

std::unique_ptr<DictionaryValue> Builder::TakeObject() {
  auto* const read = std::get_if<Value::Members>(&root_);
  if (read == nullptr) return nullptr;
  return std::make_unique<DictionaryValue>(std::move(*read));
}

}  // namespace

std::unique_ptr<DictionaryValue> JSONReader::ReadDictionary(const std::string& text) {
  Builder builder;
  if (!nlohmann::json::sax_parse(text, &builder)) return nullptr;
  return builder.TakeObject();
}

}  // namespace base
