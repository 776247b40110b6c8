#include "kestle/any.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>

namespace kestle {

std::string GetUndecoratedTypeNameForTag(TypeTag tag) {
  int status = 0;
  const std::unique_ptr<char, void (*)(void*)> name(
      abi::__cxa_demangle(tag.name(), nullptr, nullptr, &status), std::free);
  return status == 0 ? name.get() : tag.name();
}

}  // namespace kestle
