#include "base/secret.h"

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace base {

namespace {

// Never inlined: a compiler that sees the allocation treats the bytes that malloc added to the
// requested size as out of bounds.
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
