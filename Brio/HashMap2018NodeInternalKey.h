#pragma once

#include <cstdint>
#include <utility>

#include "Brio/HashMap2018VTable.h"
#include "Lumen/Assert.h"

namespace Brio {

// Node of a map whose value knows its key: the value only; KeyFunktor computes the key from it, and
// yields the default key for a null value. `salt` is the collection type's own; `alloc` is 1.
template <std::uint32_t salt, class KeyT, class ValueT, class KeyFunktor, unsigned alloc>
class Hm2018NI : public HashMap2018LinkNodeBase {
  static_assert(alloc == 1, "the only kind of allocation: buckets from the slab");

 public:
  using Key = KeyT;
  using Value = ValueT;
  static constexpr std::uint32_t kSalt = salt;
  static constexpr bool kStoresKey = false;

  explicit Hm2018NI(Value value) : value_(std::move(value)) {}

  // By reference or by value, as the functor has it.
  [[nodiscard]] decltype(auto) key() const { return KeyFunktor{}(value_); }
  // Not to be used to change the key.
  [[nodiscard]] Value& value() noexcept { return value_; }
  [[nodiscard]] const Value& value() const noexcept { return value_; }
  // Overwrites the value in place. Asserts that the key stays.
  void valueIs(Value value) {
    Lumen::assertThat(HashHelper::keyIsEq<Key>(key(), KeyFunktor{}(value)),
                      "fwkKey() == KeyFunktor()( _value )");
    value_ = std::move(value);
  }

 private:
  Value value_;
};

}  // namespace Brio
