#include "pelmorctl/command_line.h"

#include <algorithm>

namespace pelmorctl {

namespace {

bool IsOption(const std::string& word) {
  if (word.size() < 2 || word[0] != '-') return false;
  const bool negative_number = word[1] == '.' || (word[1] >= '0' && word[1] <= '9');
  return !negative_number;
}

// One word of the command line that is an option, with the value in the same word.
struct Written {
  const Option* option = nullptr;  // Null if the option is unknown.
  std::optional<std::string> value;
};

Written ReadOption(const std::string& word, std::span<const Option> options) {
  const bool is_long = word[1] == '-';
  const size_t name_end = is_long ? word.find('=') : 2;
  const std::string name = word.substr(0, name_end);
  const auto option = std::find_if(options.begin(), options.end(), [&](const Option& known) {
    return is_long ? name == known.name : name[1] == known.letter;
  });
  Written written;
  if (option != options.end()) written.option = &*option;
  if (is_long && name_end != std::string::npos) written.value = word.substr(name_end + 1);
  if (!is_long && word.size() > name_end) written.value = word.substr(name_end);
  return written;
}

constexpr std::string_view kBlanks = " \t\r";

// Removes the first character of a text that is not empty.
char TakeCharacter(std::string_view* text) {
  const char first = text->front();
  text->remove_prefix(1);
  return first;
}

// Appends the text before the closing quote to the word. False if there is none.
bool TakeQuoted(std::string_view* line, char quote, std::string* word) {
  while (!line->empty()) {
    const char character = TakeCharacter(line);
    if (character == quote) return true;
    const bool escapes =
        quote == '"' && character == '\\' && (line->starts_with('"') || line->starts_with('\\'));
    word->push_back(escapes ? TakeCharacter(line) : character);
  }
  return false;
}

// Appends the next character, or quoted text, to the word and removes it from the line, which is
// not empty. False if a quote is not closed, or nothing follows a backslash.
bool TakePiece(std::string_view* line, std::string* word) {
  const char first = TakeCharacter(line);
  if (first == '\'' || first == '"') return TakeQuoted(line, first, word);
  if (first != '\\') {
    word->push_back(first);
    return true;
  }
  if (line->empty()) return false;
  word->push_back(TakeCharacter(line));
  return true;
}

}  // namespace

base::Result<std::vector<std::string>> SplitLine(std::string_view line) {
  std::vector<std::string> words;
  for (;;) {
    line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
    if (line.empty()) return words;
    std::string& word = words.emplace_back();
    while (!line.empty() && kBlanks.find(line.front()) == std::string_view::npos)
      if (!TakePiece(&line, &word))
        return base::Failure{"it ends within a quote or after a backslash"};
  }
}

std::optional<std::string> Words::Last(const std::string& option) const {
  std::optional<std::string> last;
  for (const auto& [name, value] : options) {
    if (name == option) last = value;
  }
  return last;
}

base::Result<Words> SplitWords(std::span<const std::string> arguments,
                               std::span<const Option> options) {
  Words words;
  bool only_positionals = false;
  // cppcheck-suppress StlMissingComparison; the loop body checks for the end too.
  for (auto word = arguments.begin(); word != arguments.end(); ++word) {
    if (!only_positionals && *word == "--") {
      only_positionals = true;
      continue;
    }
    if (only_positionals || !IsOption(*word)) {
      words.positionals.push_back(*word);
      continue;
    }
    Written written = ReadOption(*word, options);
    if (!written.option || (written.value && !written.option->takes_value))
      return base::Failure{"no option '" + *word + "'"};
    if (written.option->takes_value && !written.value) {
      if (std::next(word) == arguments.end()) return base::Failure{"'" + *word + "' needs a value"};
      written.value = *++word;
    }
    words.options.emplace_back(written.option->name, written.value.value_or(""));
  }
  return words;
}

}  // namespace pelmorctl
