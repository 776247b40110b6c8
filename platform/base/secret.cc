#include "base/secret.h"

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace base {

namespace {

// Never inlined: where the compiler sees the allocation too, it holds what malloc has given beyond
// the size asked for to be out of bounds.
[[gnu::noinline]] void WipeBlock(void* block) { explicit_bzero(block, malloc_usable_size(block)); }

}  // namespace

void Wipe(std::string* secret) {
  secret->resize(secret->capacity());
  explicit_bzero(secret->data(), secret->size());
  secret->clear();
}

void FreeWiped(void* block) {
  if (!block) return;
  WipeBlock(block);
  free(block);
}

void* ReallocateWiped(void* block, size_t size) {
  void* const moved = malloc(size);
  if (!block || !moved) return moved;
  memcpy(moved, block, std::min(size, malloc_usable_size(block)));
  FreeWiped(block);
  return moved;
}

}  // namespace base
