// JSON text to values and back (RFC 8259).
#pragma once

#include <memory>
#include <string>

#include "base/values.h"

namespace base {

class JSONWriter {
 public:
  // Writes `value` as compact text: members in byte order of their keys, doubles as the digits that
  // read back to the same value, NaN and infinities as null, invalid UTF-8 as U+FFFD.
  static void Write(const Value& value, std::string* text);
};

// What a text has nested deeper is left out when it is read.
inline constexpr int kMaxJsonDepth = 100;

class JSONReader {
 public:
  // Numbers are read as doubles. Null when `text` is not one whole JSON object.
  [[nodiscard]] static std::unique_ptr<DictionaryValue> ReadDictionary(const std::string& text);
};

}  // namespace base
