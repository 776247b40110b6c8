// Callbacks: a copyable, nullable closure, and `Bind` to make one from a method.
//
// A callback runs on the thread of the message loop. One bound through a `WeakPtr` does nothing
// after its receiver is destroyed; the receiver of one bound through `Unretained` must outlive it.
#pragma once

#include <functional>
#include <memory>
#include <utility>

#include "base/weak_ptr.h"

namespace base {

template <typename Signature>
class Callback;

template <typename Result, typename... Args>
class Callback<Result(Args...)> {
 public:
  Callback() = default;
  template <typename Functor>
  requires std::is_invocable_r_v<Result, Functor&, Args...>
  // NOLINTNEXTLINE(google-explicit-constructor): closures convert implicitly.
  Callback(Functor functor) : function_(std::move(functor)) {}

  [[nodiscard]] bool is_null() const { return !function_; }
  void Reset() { function_ = nullptr; }

  // Precondition: not null.
  // NOLINTNEXTLINE(modernize-use-nodiscard): most callbacks return nothing.
  Result Run(Args... args) const { return function_(std::forward<Args>(args)...); }

 private:
  std::function<Result(Args...)> function_;
};

template <typename T>
struct UnretainedPtr {
  T* pointer;
};

// Marks a receiver that the callback does not own and that outlives it.
template <typename T>
UnretainedPtr<T> Unretained(T* pointer) {
  return {pointer};
}

// A closure that calls `method` on the receiver with the bound arguments (copied) first.
template <typename Method, typename T, typename... Bound>
auto Bind(Method method, UnretainedPtr<T> receiver, Bound... bound) {
  return [=](auto&&... args) {
    return std::invoke(method, receiver.pointer, bound..., std::forward<decltype(args)>(args)...);
  };
}

// The same through a weak pointer: a call after the receiver is destroyed does nothing.
template <typename Method, typename T, typename... Bound>
auto Bind(Method method, WeakPtr<T> receiver, Bound... bound) {
  return [=](auto&&... args) {
    if (T* const alive = receiver.get())
      std::invoke(method, alive, bound..., std::forward<decltype(args)>(args)...);
  };
}

}  // namespace base
