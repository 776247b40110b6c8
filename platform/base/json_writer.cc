#include "base/json.h"

namespace base {

void JSONWriter::Write(const Value& value, std::string* text) {
  const std::string_view closing = value.Closing();
  text->clear();
  text->reserve(value.text_.WrittenSize() + closing.size());
  value.text_.AppendTo(text);
  text->append(closing);
}

}  // namespace base
