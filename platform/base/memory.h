// The memory that the process keeps for later. For the one thread of the message loop.
#pragma once

namespace base {

// Gives the system back what is free. Takes a look at the whole heap: call it after much was let go
// of, not for every bit.
void ReleaseFreeMemory();

}  // namespace base
