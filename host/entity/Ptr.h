// Ptr: the shared handle to everything that is reference counted.
#pragma once

#include <atomic>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <type_traits>
#include <utility>

#include "host/facility/Export.h"

namespace tessel {

template <class T>
class Ptr;

/// Base of every object that lives behind a `Ptr`. The count lies in the object, so that a handle
/// is one machine word. Counting is safe from several threads; the object's own state is not.
class TESSEL_API RefCounted {
 public:
  RefCounted(const RefCounted&) = delete;
  RefCounted& operator=(const RefCounted&) = delete;

 protected:
  RefCounted() = default;
  virtual ~RefCounted() = default;

 private:
  template <class T>
  friend class Ptr;

  void retain() const noexcept { references_.fetch_add(1, std::memory_order_relaxed); }
  void release() const noexcept {
    if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
      delete this;
    }
  }

  mutable std::atomic<uint32_t> references_{0};
};

/// Shared, reference-counted handle; null when empty. The last handle to go deletes the object.
template <class T>
class TESSEL_API Ptr {
 public:
  constexpr Ptr() noexcept = default;
  constexpr Ptr(std::nullptr_t) noexcept {}
  /// Shares `object`, which was made with `new` and is owned by handles from then on.
  explicit Ptr(T* object) noexcept : object_(object) { retain(); }
  Ptr(const Ptr& other) noexcept : object_(other.object_) { retain(); }
  Ptr(Ptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  template <class U>
  requires std::is_convertible_v<U*, T*> Ptr(const Ptr<U>& other)
  noexcept : object_(other.get()) { retain(); }
  template <class U>
  requires std::is_convertible_v<U*, T*> Ptr(Ptr<U>&& other)
  noexcept : object_(other.detach()) {}
  ~Ptr() { release(); }

  Ptr& operator=(Ptr other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }

  T* get() const noexcept { return object_; }
  T& operator*() const noexcept { return *object_; }
  T* operator->() const noexcept { return object_; }
  explicit operator bool() const noexcept { return object_ != nullptr; }

  friend bool operator==(const Ptr& a, const Ptr& b) noexcept { return a.object_ == b.object_; }
  friend bool operator==(const Ptr& a, std::nullptr_t) noexcept { return a.object_ == nullptr; }

 private:
  template <class U>
  friend class Ptr;

  T* detach() noexcept { return std::exchange(object_, nullptr); }
  void retain() const noexcept {
    if (object_ != nullptr) {
      static_cast<const RefCounted*>(object_)->retain();
    }
  }
  void release() const noexcept {
    if (object_ != nullptr) {
      static_cast<const RefCounted*>(object_)->release();
    }
  }

  T* object_ = nullptr;
};

/// Makes an object and the first handle to it.
template <class T, class... Args>
Ptr<T> makePtr(Args&&... args) {
  return Ptr<T>(new T(std::forward<Args>(args)...));
}

}  // namespace tessel
