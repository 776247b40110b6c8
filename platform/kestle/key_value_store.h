// Key=value text: one `KEY=VALUE` per line.
//
// Blanks around the key are removed; the value is everything after the first "=" up to the end of
// the line, unchanged. Blank lines, and lines whose first character other than blanks is "#", are
// skipped.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "base/file_path.h"

namespace kestle {

struct KeyValueLine {
  int number = 0;       // From 1.
  bool is_pair = true;  // False: the line has no "=" or no key, so that the store rejects the file.
  std::string key = {};
  std::string value = {};
};

// The lines of `text` that are not skipped.
std::vector<KeyValueLine> ReadKeyValueLines(std::string_view text);

class KeyValueStore {
 public:
  // Adds the pairs of a file to the store; the last value of a key wins. If the file can't be read
  // or one of its lines is not a pair, returns false and leaves the store unchanged.
  [[nodiscard]] bool Load(const base::FilePath& path);

  // If the key is absent, returns false and leaves `value` unchanged.
  [[nodiscard]] bool GetString(const std::string& key, std::string* value) const;

 private:
  std::map<std::string, std::string> pairs_;
};

}  // namespace kestle
