// Parses the status line that the daemon publishes. Its grammar is in ap-pelmor(8).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace pelmorctl {

struct StatusSection {
  std::string name;
  // In the order of the line; a quoted value still has its quotes.
  std::vector<std::pair<std::string, std::string>> items;
};

class DaemonStatus {
 public:
  // Nothing if the line does not follow the grammar.
  [[nodiscard]] static std::optional<DaemonStatus> Parse(const std::string& line);

  [[nodiscard]] const std::vector<StatusSection>& sections() const { return sections_; }
  [[nodiscard]] bool Has(const std::string& section) const { return Find(section) != nullptr; }
  // Without quotes; empty if the key is absent.
  [[nodiscard]] std::string Text(const std::string& section, const std::string& key) const;
  // 0 if the key is absent or its value is not a number.
  [[nodiscard]] int64_t Number(const std::string& section, const std::string& key) const;

 private:
  [[nodiscard]] const StatusSection* Find(const std::string& name) const;

  std::vector<StatusSection> sections_;
};

}  // namespace pelmorctl
