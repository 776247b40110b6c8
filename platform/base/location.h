// A source location: where an error was raised.
#pragma once

namespace base {

struct Location {
  // As the default of a parameter: the caller's location.
  static constexpr Location Current(const char* function = __builtin_FUNCTION(),
                                    const char* file = __builtin_FILE(),
                                    int line = __builtin_LINE()) {
    return {function, file, line};
  }

  // String literals.
  const char* function;
  const char* file;
  int line;
};

}  // namespace base
