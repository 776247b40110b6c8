// The heap of a daemon: what is let go of is overwritten, and with it every copy of a secret that
// some string, container or closure has held, the standard library's own included.

#include <cstdlib>
#include <new>
#include <utility>

#include "base/logging.h"
#include "base/secret.h"

namespace {

// There are no exceptions to say it with.
[[noreturn]] void EndForLackOf(size_t size) {
  static bool told = false;
  // The telling takes memory too, though mostly less.
  if (!std::exchange(told, true)) LOG(FATAL) << "No memory left for " << size << " bytes";
  abort();
}

}  // namespace

void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return malloc(size > 0 ? size : 1);
}

void* operator new(size_t size) {
  void* const block = operator new(size, std::nothrow);
  if (!block) EndForLackOf(size);
  return block;
}

void operator delete(void* block) noexcept { base::FreeWiped(block); }
void operator delete(void* block, size_t) noexcept { base::FreeWiped(block); }
