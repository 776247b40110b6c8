// A command line taken apart: its options with their values, and the rest.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace pelmorctl {

struct Option {
  const char* name;  // "--label"
  char letter;       // Of its short form, as in "-l"; 0 when it has none.
  bool takes_value;
};

struct Words {
  std::vector<std::string> positionals;
  // By their long names, in the order given; the value of an option that takes none is empty.
  std::vector<std::pair<std::string, std::string>> options;

  bool Has(const std::string& option) const;
  // The last one given wins.
  std::optional<std::string> Last(const std::string& option) const;
};

// Options and positionals may be mixed; after "--" all are positionals, as are "-" and what looks
// like a negative number. On a mistake returns nothing and names it in `complaint`.
std::optional<Words> SplitWords(std::span<const std::string> arguments,
                                std::span<const Option> options, std::string* complaint);

}  // namespace pelmorctl
