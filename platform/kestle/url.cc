#include "kestle/url.h"

namespace kestle::url {

std::string CombineMultiple(const std::string& base, const std::vector<std::string>& parts) {
  std::string url = base;
  for (const std::string& part : parts) {
    const size_t start = part.find_first_not_of('/');
    if (start == std::string::npos) continue;
    while (!url.empty() && url.back() == '/') url.pop_back();
    if (!url.empty()) url.push_back('/');
    url.append(part, start);
  }
  return url;
}

}  // namespace kestle::url
