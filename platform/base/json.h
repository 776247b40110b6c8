// JSON text to values and back (RFC 8259).
#pragma once

#include <memory>
#include <string>

#include "base/values.h"

namespace base {

class JSONWriter {
 public:
  // Writes `value` as compact text: members in byte order of their keys, doubles with the digits
  // that parse to the same value, NaN and infinities as null, invalid UTF-8 as U+FFFD.
  static void Write(const Value& value, std::string* text);
};

// The reader omits values that are nested deeper.
inline constexpr int kMaxJsonDepth = 100;

class JSONReader {
 public:
  // Numbers become doubles. Null if `text` is not exactly one JSON object.
  [[nodiscard]] static std::unique_ptr<DictionaryValue> ReadDictionary(const std::string& text);
};

}  // namespace base
