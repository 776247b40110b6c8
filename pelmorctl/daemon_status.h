// The status line that the daemon publishes, taken apart. Its grammar is in ap-pelmor(8).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace pelmorctl {

struct StatusSection {
  std::string name;
  // Keys and values in their order; a quoted value still has its quotes.
  std::vector<std::pair<std::string, std::string>> items;
};

class DaemonStatus {
 public:
  // Nothing for a line that does not follow the grammar.
  static std::optional<DaemonStatus> Parse(const std::string& line);

  const std::vector<StatusSection>& sections() const { return sections_; }
  bool Has(const std::string& section) const { return Find(section) != nullptr; }
  // Without the quotes; empty when there is none.
  std::string Text(const std::string& section, const std::string& key) const;
  // 0 when there is none, or no number.
  int64_t Number(const std::string& section, const std::string& key) const;

 private:
  const StatusSection* Find(const std::string& name) const;

  std::vector<StatusSection> sections_;
};

}  // namespace pelmorctl
