// Freed memory that the allocator keeps. For the thread of the message loop only.
#pragma once

namespace base {

// Returns free memory to the system. Scans the whole heap, so call it only after freeing a lot.
void ReleaseFreeMemory();

}  // namespace base
