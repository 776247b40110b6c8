#include "kestle/flag_helper.h"

#include <getopt.h>
#include <sysexits.h>

#include <cstdio>
#include <cstdlib>

namespace kestle {

namespace {

[[noreturn]] void PrintUsage(const char* program, const std::string& help_text) {
  std::printf("Usage: %s [--help]\n\n%s\n", program, help_text.c_str());
  std::exit(EX_OK);
}

[[noreturn]] void Reject(const char* program, const char* what, const char* culprit) {
  std::fprintf(stderr, "%s: %s '%s'; see '%s --help'\n", program, what, culprit, program);
  std::exit(EX_USAGE);
}

}  // namespace

void FlagHelper::Init(int argc, const char* const* argv, const std::string& help_text) {
  static constexpr option kOptions[] = {{"help", no_argument, nullptr, 'h'}, {}};
  opterr = 0;
  int current = 1;
  // getopt_long takes the vector as non-const for its permutations, which "+" turns off.
  for (int flag = 0; flag != -1; current = optind) {
    flag = getopt_long(argc, const_cast<char* const*>(argv), "+", kOptions, nullptr);
    if (flag == 'h') PrintUsage(argv[0], help_text);
    if (flag == '?') Reject(argv[0], "unknown flag", argv[current]);
  }
  if (optind < argc) Reject(argv[0], "unexpected argument", argv[optind]);
}

}  // namespace kestle
