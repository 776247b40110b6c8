// A place in the source, for errors to say where they were raised.
#pragma once

namespace base {

struct Location {
  // The caller's place, when it is the default of a parameter.
  static constexpr Location Current(const char* function = __builtin_FUNCTION(),
                                    const char* file = __builtin_FILE(),
                                    int line = __builtin_LINE()) {
    return {function, file, line};
  }

  // Owned by the program's text.
  const char* function;
  const char* file;
  int line;
};

}  // namespace base
