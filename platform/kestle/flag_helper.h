// The command line of a program that has no flags of its own.
#pragma once

#include <string>

namespace kestle {

class FlagHelper {
 public:
  // Handles `--help` (prints the usage with `help_text`, exits 0) and rejects every other flag or
  // argument: one line on standard error, exit EX_USAGE (64).
  static void Init(int argc, const char* const* argv, const std::string& help_text);
};

}  // namespace kestle
