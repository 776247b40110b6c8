#include "ap/pelmor/web_safe_base64.h"

#include <algorithm>

#include "kestle/data_encoding.h"

namespace varelnos::ap {

std::string WebSafeBase64Encode(const std::string& data) {
  std::string text = kestle::data_encoding::Base64Encode(data);
  std::replace(text.begin(), text.end(), '+', '-');
  std::replace(text.begin(), text.end(), '/', '_');
  return text;
}

}  // namespace varelnos::ap
