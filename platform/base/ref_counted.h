// `scoped_refptr`: a shared reference to a reference-counted object.
#pragma once

#include <memory>

template <typename T>
using scoped_refptr = std::shared_ptr<T>;
