// URLs from their parts.
#pragma once

#include <string>
#include <vector>

namespace kestle::url {

// `base` and the parts, joined by exactly one slash each; an empty part adds nothing.
std::string CombineMultiple(const std::string& base, const std::vector<std::string>& parts);

}  // namespace kestle::url
