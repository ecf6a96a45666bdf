#pragma once

namespace Brio {

// A number that does not mix with other numbers by accident; `kind` tells the uses apart.
template <class T, unsigned kind>
class TypeSafeIndex {
 public:
  constexpr explicit TypeSafeIndex(T value) noexcept : value_(value) {}
  [[nodiscard]] constexpr T value() const noexcept { return value_; }

 private:
  T value_;
};

}  // namespace Brio
