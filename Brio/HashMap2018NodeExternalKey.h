#pragma once

#include <cstdint>
#include <type_traits>
#include <utility>

#include "Brio/HashMap2018VTable.h"

namespace Brio {

// Node of a set (Value is void) or of a map whose value does not contain the key: the key and, if
// there is one, the value, each by itself. `salt` is the collection type's own; `alloc` is 1.
template <std::uint32_t salt, class KeyT, class ValueT, unsigned alloc>
class Hm2018NE : public HashMap2018LinkNodeBase {
  static_assert(alloc == 1, "the only kind of allocation: buckets from the slab");

 public:
  using Key = KeyT;
  using Value = ValueT;
  static constexpr std::uint32_t kSalt = salt;
  static constexpr bool kStoresKey = true;

  explicit Hm2018NE(const Key& key) : key_(key), value_() {}
  Hm2018NE(const Key& key, Value value) : key_(key), value_(std::move(value)) {}

  [[nodiscard]] const Key& key() const noexcept { return key_; }
  [[nodiscard]] Value& value() noexcept { return value_; }
  [[nodiscard]] const Value& value() const noexcept { return value_; }
  void valueIs(Value value) { value_ = std::move(value); }

 private:
  Key key_;
  Value value_;
};

template <std::uint32_t salt, class KeyT, unsigned alloc>
class Hm2018NE<salt, KeyT, void, alloc> : public HashMap2018LinkNodeBase {
  static_assert(alloc == 1, "the only kind of allocation: buckets from the slab");

 public:
  using Key = KeyT;
  using Value = void;
  static constexpr std::uint32_t kSalt = salt;
  static constexpr bool kStoresKey = true;

  explicit Hm2018NE(const Key& key) : key_(key) {}

  [[nodiscard]] const Key& key() const noexcept { return key_; }

 private:
  Key key_;
};

}  // namespace Brio
