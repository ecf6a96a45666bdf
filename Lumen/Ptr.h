#pragma once

#include <concepts>
#include <cstddef>
#include <utility>

namespace Lumen {

// Intrusive reference-counted pointer to a Lumen::Node (anything with refInc() and refDec()). One
// word; may be null. Dereferencing a null pointer is undefined.
template <class T>
class Ptr {
 public:
  using element_type = T;

  constexpr Ptr() noexcept = default;
  constexpr Ptr(std::nullptr_t) noexcept {}
  // Takes one reference on `node`.
  explicit Ptr(T* node) noexcept : node_(node) {
    if (node_ != nullptr) {
      node_->refInc();
    }
  }
  Ptr(const Ptr& other) noexcept : Ptr(other.node_) {}
  Ptr(Ptr&& other) noexcept : node_(std::exchange(other.node_, nullptr)) {}
  template <class U>
  requires std::convertible_to<U*, T*> Ptr(const Ptr<U>& other)
  noexcept : Ptr(static_cast<T*>(other.get())) {}
  template <class U>
  requires std::convertible_to<U*, T*> Ptr(Ptr<U>&& other)
  noexcept : node_(other.detach()) {}
  ~Ptr() {
    if (node_ != nullptr) {
      node_->refDec();
    }
  }

  Ptr& operator=(const Ptr& other) noexcept {
    Ptr(other).swap(*this);
    return *this;
  }
  Ptr& operator=(Ptr&& other) noexcept {
    Ptr(std::move(other)).swap(*this);
    return *this;
  }
  Ptr& operator=(std::nullptr_t) noexcept {
    Ptr().swap(*this);
    return *this;
  }

  [[nodiscard]] T* get() const noexcept { return node_; }
  T* operator->() const noexcept { return node_; }
  T& operator*() const noexcept { return *node_; }
  explicit operator bool() const noexcept { return node_ != nullptr; }

  // Gives the reference away without dropping it; the pointer is null afterwards.
  [[nodiscard]] T* detach() noexcept { return std::exchange(node_, nullptr); }
  void swap(Ptr& other) noexcept { std::swap(node_, other.node_); }

  friend bool operator==(const Ptr& a, const Ptr& b) noexcept { return a.node_ == b.node_; }
  friend bool operator==(const Ptr& a, std::nullptr_t) noexcept { return a.node_ == nullptr; }

 private:
  T* node_ = nullptr;
};

// A new T, owned by the pointer that comes back.
template <class T, class... Args>
[[nodiscard]] Ptr<T> makeNode(Args&&... args) {
  return Ptr<T>(new T(std::forward<Args>(args)...));
}

// Downcasts: unchecked, where the class is known; checked, null if the node is of another class.
template <class T, class U>
[[nodiscard]] Ptr<T> staticPtrCast(const Ptr<U>& pointer) noexcept {
  return Ptr<T>(static_cast<T*>(pointer.get()));
}
template <class T, class U>
[[nodiscard]] Ptr<T> dynamicPtrCast(const Ptr<U>& pointer) noexcept {
  return Ptr<T>(dynamic_cast<T*>(pointer.get()));
}

}  // namespace Lumen
