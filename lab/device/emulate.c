// Replaces a program for another processor: runs the emulator on the real program with the same
// arguments and environment. It is linked statically, so that a preloaded library in the
// environment, which is meant for the program, is not loaded here.
//
// The program's own loader finds its libraries. The emulator's option -L would do so too, but then
// it opens the sysroot's root folder when the program opens the device's.
#include <stdio.h>
#include <string.h>
#include <unistd.h>

enum { kOwnArguments = 7 };

int main(int argc, char** argv) {
  const char* const slash = strrchr(argv[0], '/');
  char program[256];
  snprintf(program, sizeof(program), "%s/%s", EMULATED_FOLDER, slash ? slash + 1 : argv[0]);
  char* arguments[kOwnArguments + argc];
  char** next = arguments;
  *next++ = EMULATOR;
  *next++ = LOADER;
  *next++ = "--library-path";
  *next++ = LIBRARIES;
  *next++ = "--argv0";
  *next++ = argv[0];
  *next++ = program;
  // The null pointer at the end too.
  memcpy(next, argv + 1, sizeof(char*) * argc);
  execv(EMULATOR, arguments);
  perror(EMULATOR);
  return 127;
}
