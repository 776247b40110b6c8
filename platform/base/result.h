// A value, or the reason why there is none, as a text for people.
//
//   base::Result<Task> ParseTask(const std::string& text) {
//     if (text.empty()) return base::Failure{"no task"};
//     return Task(text);
//   }
//
// `Result<>` has no value: success is `return {}`. A failure that callers tell apart is a class
// derived from `Failure`, given as the second type.
#pragma once

#include <concepts>
#include <string>
#include <utility>
#include <variant>

namespace base {

struct Failure {
  std::string reason;
};

template <typename T = std::monostate, std::derived_from<Failure> F = Failure>
class [[nodiscard]] Result {
 public:
  Result() requires std::same_as<T, std::monostate>
  = default;
  // NOLINTNEXTLINE(google-explicit-constructor): a function returns either.
  Result(T value) : outcome_(std::move(value)) {}
  // NOLINTNEXTLINE(google-explicit-constructor): a function returns either.
  Result(F failure) : outcome_(std::move(failure)) {}

  explicit operator bool() const { return std::holds_alternative<T>(outcome_); }

  // Precondition: success.
  T& operator*() { return std::get<T>(outcome_); }
  const T& operator*() const { return std::get<T>(outcome_); }
  T* operator->() { return &**this; }
  const T* operator->() const { return &**this; }

  // Precondition: failure.
  [[nodiscard]] const std::string& reason() const { return failure().reason; }
  // For a caller of another type of result: `if (!text) return text.failure();`
  [[nodiscard]] const F& failure() const { return std::get<F>(outcome_); }

 private:
  std::variant<T, F> outcome_;
};

}  // namespace base
