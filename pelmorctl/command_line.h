// Splits a command line into options, with their values, and positional arguments.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/result.h"

namespace pelmorctl {

struct Option {
  const char* name;  // "--label"
  char letter;       // Of its short form, as in "-l"; 0 if it has none.
  bool takes_value;
};

struct Words {
  std::vector<std::string> positionals;
  // By long name, in the order given. The value of an option that takes none is empty.
  std::vector<std::pair<std::string, std::string>> options;

  [[nodiscard]] bool Has(const std::string& option) const { return Last(option).has_value(); }
  // The value that was given last.
  [[nodiscard]] std::optional<std::string> Last(const std::string& option) const;
};

// Splits a line into words at spaces, tabs and carriage returns. As in a shell, quotes and
// backslashes keep characters of a word together: 'a b', "a b" or a\ b. Between double quotes a
// backslash escapes only " and \.
base::Result<std::vector<std::string>> SplitLine(std::string_view line);

// Options and positionals may be mixed. "-", everything after "--" and text that looks like a
// negative number are positionals.
base::Result<Words> SplitWords(std::span<const std::string> arguments,
                               std::span<const Option> options);

}  // namespace pelmorctl
