// The heap of the daemon: freed memory is overwritten, and with it every copy of a secret that a
// string, container or closure held, those of the standard library included.
//
// Linked with `main`, not part of a library: it replaces the global new and delete.

#include <cstdlib>
#include <new>
#include <utility>

#include "base/logging.h"
#include "base/secret.h"

namespace {

[[noreturn]] void AbortForLackOf(size_t size) {
  // Logging allocates too, so this function may be entered again.
  static bool is_logging = false;
  if (!std::exchange(is_logging, true)) LOG(FATAL) << "No memory left for " << size << " bytes";
  abort();
}

}  // namespace

void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return malloc(size > 0 ? size : 1);
}

void* operator new(size_t size) {
  void* const block = operator new(size, std::nothrow);
  if (!block) AbortForLackOf(size);
  return block;
}

void operator delete(void* block) noexcept { base::FreeWiped(block); }
void operator delete(void* block, size_t) noexcept { base::FreeWiped(block); }
