#include "base/error.h"

#include <utility>

namespace base {

Error::Error(std::string domain, std::string code, std::string message, ErrorPtr inner,
             Location location)
    : domain_(std::move(domain)),
      code_(std::move(code)),
      message_(std::move(message)),
      location_(location),
      inner_(std::move(inner)) {}

void Error::AddTo(ErrorPtr* error, const std::string& domain, const std::string& code,
                  const std::string& message, Location location) {
  if (!error) return;
  *error = std::make_unique<Error>(domain, code, message, std::move(*error), location);
}

}  // namespace base
