// Weak pointers for callbacks that may outlive their object.
//
// The object holds a `WeakPtrFactory` as its last member, so that its pointers are invalid before
// anything else of it is destroyed. One thread only.
#pragma once

#include <memory>

namespace base {

template <typename T>
class WeakPtr {
 public:
  WeakPtr() = default;

  // Null once the object is gone.
  T* get() const { return pointer_.lock().get(); }

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

  WeakPtr<T> GetWeakPtr() const { return WeakPtr<T>(handle_); }

 private:
  const std::shared_ptr<T> handle_;  // Does not own: it only carries the liveness of the owner.
};

}  // namespace base
