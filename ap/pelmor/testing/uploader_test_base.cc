#include "ap/pelmor/testing/uploader_test_base.h"

namespace varelnos::ap {

std::string NumbersIn(const std::string& body) {
  const std::string key = "\"int64Value\":\"";
  std::string numbers;
  for (size_t at = body.find(key); at != std::string::npos; at = body.find(key, at + 1)) {
    const size_t start = at + key.size();
    numbers += (numbers.empty() ? "" : " ") + body.substr(start, body.find('"', start) - start);
  }
  return numbers;
}

}  // namespace varelnos::ap
