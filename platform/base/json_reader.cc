#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>
#include <variant>
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
  std::unique_ptr<DictionaryValue> TakeObject() { return std::move(root_); }

  bool null() override { return Put(Value()); }
  bool boolean(bool value) override { return Put(Value(value)); }
  bool number_integer(int64_t value) override { return PutNumber(static_cast<double>(value)); }
  bool number_unsigned(uint64_t value) override { return PutNumber(static_cast<double>(value)); }
  bool number_float(double value, const std::string& /*text*/) override { return PutNumber(value); }
  bool string(std::string& value) override { return Put(Value(value)); }
  // JSON has no binary values.
  bool binary(nlohmann::json::binary_t& /*value*/) override { return false; }
  bool start_object(size_t /*size*/) override { return Start(Members()); }
  bool key(std::string& name) override;
  bool end_object() override;
  bool start_array(size_t /*size*/) override { return Start(ListValue()); }
  bool end_array() override;
  bool parse_error(size_t /*position*/, const std::string& /*token*/,
                   const nlohmann::json::exception& /*error*/) override {
    return false;
  }

 private:
  struct Members {
    std::map<std::string, Value> values;
    std::string next_key;
  };
  using Container = std::variant<ListValue, Members>;

  // All numbers become doubles.
  bool PutNumber(double value) { return Put(Value(value)); }
  bool Put(Value value);
  bool Start(Container container);
  // Ends the innermost container, which is returned; none if it is omitted.
  std::optional<Container> End();

  // The open containers, the innermost last.
  std::vector<Container> open_;
  // The number of open containers below `kMaxJsonDepth`.
  size_t left_out_ = 0;
  std::unique_ptr<DictionaryValue> root_;
};

bool Builder::Put(Value value) {
  if (left_out_ > 0 || open_.empty()) return true;
  if (auto* const list = std::get_if<ListValue>(&open_.back())) {
    list->Append(std::move(value));
  } else {
    auto& [values, next_key] = *std::get_if<Members>(&open_.back());
    value.ShrinkToFit();
    // Of equal keys the last one counts.
    values.insert_or_assign(std::move(next_key), std::move(value));
  }
  return true;
}

bool Builder::key(std::string& name) {
  if (left_out_ == 0) std::get_if<Members>(&open_.back())->next_key = std::move(name);
  return true;
}

bool Builder::Start(Container container) {
  if (left_out_ == 0 && open_.size() < kMaxJsonDepth)
    open_.push_back(std::move(container));
  else
    ++left_out_;
  return true;
}

std::optional<Builder::Container> Builder::End() {
  if (left_out_ > 0) {
    --left_out_;
    return std::nullopt;
  }
  Container ended = std::move(open_.back());
  open_.pop_back();
  return ended;
}

bool Builder::end_array() {
  if (auto ended = End()) Put(std::move(*std::get_if<ListValue>(&*ended)));
  return true;
}

bool Builder::end_object() {
  auto ended = End();
  if (!ended) return true;
  DictionaryValue object;
  for (auto& [key, value] : std::get_if<Members>(&*ended)->values)
    object.SetWithoutPathExpansion(key, std::move(value));
  if (open_.empty())
    root_ = std::make_unique<DictionaryValue>(std::move(object));
  else
    Put(std::move(object));
  return true;
}

}  // namespace

std::unique_ptr<DictionaryValue> JSONReader::ReadDictionary(const std::string& text) {
  Builder builder;
  if (!nlohmann::json::sax_parse(text, &builder)) return nullptr;
  return builder.TakeObject();
}

}  // namespace base
