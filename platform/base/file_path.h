// The path of a file, as bytes.
#pragma once

#include <string>
#include <utility>

namespace base {

class FilePath {
 public:
  FilePath() = default;
  // NOLINTBEGIN(google-explicit-constructor): a path is its text.
  FilePath(std::string value) : value_(std::move(value)) {}
  FilePath(const char* value) : value_(value) {}
  // NOLINTEND(google-explicit-constructor)

  [[nodiscard]] const std::string& value() const { return value_; }

 private:
  std::string value_;
};

}  // namespace base
