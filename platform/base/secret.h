// What leaves nothing of a secret behind in memory. For any thread.
//
// A string lets go of memory by itself too, when it grows, moves or ends. The daemon's heap wipes
// that: see `ap/pelmor/wiping_heap.cc`.
#pragma once

#include <cstddef>
#include <string>

namespace base {

// Empties the string, and overwrites all that its buffer has ever held. A plain `clear` overwrites
// nothing, and an assignment leaves the end of a longer old value.
void Wipe(std::string* secret);

// As free() and realloc() do, with the memory that they let go of overwritten.
void FreeWiped(void* block);
void* ReallocateWiped(void* block, size_t size);

}  // namespace base
