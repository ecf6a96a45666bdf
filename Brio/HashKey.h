#pragma once

#include <compare>
#include <concepts>
#include <cstdint>
#include <string_view>

#include "Brio/Hash.h"
#include "Lumen/String.h"

// What a keyed collection asks of its key type: a hash, an equality and an order. A key with
// operations hash(seed) and isEq(other) brings its own; a plain value is hashed as one attribute
// and compared by operator==. The order is operator<=>.

namespace Brio {

template <class Key>
concept HashesItself = requires(const Key& key, std::uint32_t seed) {
  { key.hash(seed) } -> std::convertible_to<std::uint32_t>;
};

template <class Key>
concept ComparesItself = requires(const Key& key) {
  { key.isEq(key) } -> std::convertible_to<bool>;
};

template <class Key>
concept HashMap2018Key = std::copy_constructible<Key> &&
                         (ComparesItself<Key> || std::equality_comparable<Key>)&&(
                             HashesItself<Key> || std::same_as<Key, Lumen::String> ||
                             requires(const Key& key) { hashSingleAttr(0, key); }) &&
                         requires(const Key& a, const Key& b) {
  { (a <=> b) < 0 } -> std::convertible_to<bool>;
};

namespace HashHelper {

// A key and its salted hash on the way into a collection. Holds the key's address: the key must
// outlive it.
struct KeyAndRhashSeedArg {
  const void* key;
  std::uint32_t hash;
};

// The same for a string key that is at hand as a view only.
struct KeyString {
  std::string_view text;
  std::uint32_t hash;
};

template <class Key>
[[nodiscard]] std::uint32_t keyHash(std::uint32_t seed, const Key& key) {
  if constexpr (HashesItself<Key>) {
    return key.hash(seed);
  } else if constexpr (std::same_as<Key, Lumen::String>) {
    return Hash::hashBytes(seed, key.data(), key.size());
  } else {
    return hashSingleAttr(seed, key);
  }
}

template <class Key>
[[nodiscard]] bool keyIsEq(const Key& a, const Key& b) {
  if constexpr (ComparesItself<Key>) {
    return a.isEq(b);
  } else {
    return a == b;
  }
}

}  // namespace HashHelper

}  // namespace Brio
