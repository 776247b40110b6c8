// The heap of a daemon: what is let go of is overwritten, and with it every copy of a secret that
// some string, container or closure has held, the standard library's own included.

#include <cstdlib>
#include <new>

#include "base/secret.h"

void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return malloc(size > 0 ? size : 1);
}

void* operator new(size_t size) {
  void* const block = operator new(size, std::nothrow);
  // There are no exceptions to say it with.
  if (!block) abort();
  return block;
}

void operator delete(void* block) noexcept { base::FreeWiped(block); }
void operator delete(void* block, size_t) noexcept { base::FreeWiped(block); }
