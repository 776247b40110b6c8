// One precondition of recording and uploading.
#pragma once

#include <string>

namespace pelmorctl {

struct Condition {
  std::string name;  // For programs: "clock".
  bool passed = false;
  std::string finding;
  std::string advice;  // How to fix it; empty if passed without a warning.

  static Condition Pass(const std::string& name, const std::string& finding) {
    return {name, true, finding, ""};
  }
  // Passes, unless warnings count as failures.
  static Condition Warn(const std::string& name, const std::string& finding,
                        const std::string& advice) {
    return {name, true, finding, advice};
  }
  static Condition Fail(const std::string& name, const std::string& finding,
                        const std::string& advice) {
    return {name, false, finding, advice};
  }
};

}  // namespace pelmorctl
