// Key=value text, line by line: what `kestle::KeyValueStore` makes of it, with the line numbers.
#pragma once

#include <string>
#include <vector>

namespace pelmorctl {

struct ConfigLine {
  int number = 0;
  bool is_pair = true;  // False: no pair, nor blank, nor a comment. The store refuses the file.
  std::string key = {};
  std::string value = {};
};

// The lines that say something.
std::vector<ConfigLine> ReadConfigLines(const std::string& text);

}  // namespace pelmorctl
