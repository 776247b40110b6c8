// Errors by value: a chain that the caller owns and the callee adds to.
//
// A function that reports errors this way takes an `ErrorPtr*`, which is null if the caller needs
// no reason. The newest entry is the head of the chain; `inner()` returns the one that it was added
// to.
#pragma once

#include <memory>
#include <string>

#include "base/location.h"

namespace base {

class Error;
using ErrorPtr = std::unique_ptr<Error>;

class Error {
 public:
  Error(std::string domain, std::string code, std::string message, ErrorPtr inner = nullptr,
        Location location = Location::Current());

  // Puts a new head on the chain in `error`. Does nothing when `error` is null.
  static void AddTo(ErrorPtr* error, const std::string& domain, const std::string& code,
                    const std::string& message, Location location = Location::Current());

  [[nodiscard]] const std::string& GetDomain() const { return domain_; }
  [[nodiscard]] const std::string& GetCode() const { return code_; }
  [[nodiscard]] const std::string& GetMessage() const { return message_; }
  // Where the error was raised.
  [[nodiscard]] const Location& GetLocation() const { return location_; }
  // The entry that this one was added to; null at the end of the chain.
  [[nodiscard]] const Error* inner() const { return inner_.get(); }

 private:
  std::string domain_;
  std::string code_;
  std::string message_;
  Location location_;
  ErrorPtr inner_;
};

}  // namespace base
