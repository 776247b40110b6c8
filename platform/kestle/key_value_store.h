// Key=value text: one `KEY=VALUE` a line.
//
// The key is trimmed of blanks, the value is everything after the first "=" up to the end of the
// line, as it stands. Blank lines, and lines whose first character other than blanks is "#", say
// nothing.
#pragma once

#include <map>
#include <string>

#include "base/file_path.h"

namespace kestle {

class KeyValueStore {
 public:
  // Adds the pairs of a file to the store; a key that was there, or comes again, gets the new
  // value. When the file can't be read or a line is no pair, returns false and leaves the store
  // alone.
  bool Load(const base::FilePath& path);

  // When the key is absent, returns false and leaves `value` alone.
  bool GetString(const std::string& key, std::string* value) const;

 private:
  std::map<std::string, std::string> pairs_;
};

}  // namespace kestle
