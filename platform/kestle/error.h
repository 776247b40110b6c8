// The error chain of the platform (`base/error.h`) under the name that the daemon uses.
#pragma once

#include "base/error.h"

namespace kestle {

using base::Error;
using base::ErrorPtr;

}  // namespace kestle
