#include "base/json.h"

#include <nlohmann/json.hpp>

namespace base {

void JSONWriter::Write(const Value& value, std::string* text) {
  constexpr int kCompact = -1;
  constexpr bool kKeepUtf8 = false;
  *text = value.json().dump(kCompact, ' ', kKeepUtf8, nlohmann::json::error_handler_t::replace);
}

std::unique_ptr<DictionaryValue> JSONReader::ReadDictionary(const std::string& text) {
  constexpr bool kAllowExceptions = false;
  nlohmann::json json = nlohmann::json::parse(text, nullptr, kAllowExceptions);
  if (!json.is_object()) return nullptr;
  return std::make_unique<DictionaryValue>(std::move(json));
}

}  // namespace base
