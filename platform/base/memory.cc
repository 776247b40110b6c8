#include "base/memory.h"

#include <malloc.h>

namespace base {

void ReleaseFreeMemory() { malloc_trim(0); }

}  // namespace base
