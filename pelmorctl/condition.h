// One thing that must hold before the daemon takes a record and uploads it.
#pragma once

#include <string>

namespace pelmorctl {

struct Condition {
  std::string name;  // For machines: "clock".
  bool green = false;
  std::string finding;
  std::string advice;  // What to do; empty when green.

  static Condition Green(const std::string& name, const std::string& finding) {
    return {name, true, finding, ""};
  }
  static Condition Red(const std::string& name, const std::string& finding,
                       const std::string& advice) {
    return {name, false, finding, advice};
  }
};

}  // namespace pelmorctl
