// Weak pointers for callbacks that may outlive their object.
//
// The object has a `WeakPtrFactory` as its last member, so that its pointers become null before
// another member is destroyed. One thread only.
#pragma once

#include <memory>

namespace base {

template <typename T>
class WeakPtr {
 public:
  WeakPtr() = default;

  // Null after the object is destroyed.
  [[nodiscard]] T* get() const { return pointer_.lock().get(); }

 private:
  template <typename>
  friend class WeakPtrFactory;
  explicit WeakPtr(const std::shared_ptr<T>& pointer) : pointer_(pointer) {}

  std::weak_ptr<T> pointer_;
};

template <typename T>
class WeakPtrFactory {
 public:
  explicit WeakPtrFactory(T* owner) : handle_(owner, [](T*) {}) {}
  WeakPtrFactory(const WeakPtrFactory&) = delete;
  WeakPtrFactory& operator=(const WeakPtrFactory&) = delete;

  [[nodiscard]] WeakPtr<T> GetWeakPtr() const { return WeakPtr<T>(handle_); }

 private:
  const std::shared_ptr<T> handle_;  // Does not own the object; only its lifetime matters.
};

}  // namespace base
