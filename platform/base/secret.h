// Overwrites memory that contained a secret. For any thread.
//
// A string also frees memory when it grows, moves or ends. The daemon's heap overwrites that
// memory: see `ap/pelmor/wiping_heap.cc`.
#pragma once

#include <cstddef>
#include <string>

namespace base {

// Empties the string and overwrites its whole buffer. `clear` overwrites nothing, and an assignment
// leaves the end of a longer old value.
void Wipe(std::string* secret);

// Like free() and realloc(), but overwrite the memory that they free.
void FreeWiped(void* block);
void* ReallocateWiped(void* block, size_t size);

}  // namespace base
