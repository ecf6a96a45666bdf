#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace Quilt {

// A key as whole words, zero beyond its end, in which form keys are compared, ordered and hashed.
// Two keys are the same when their bytes are. Order and hash are part of the format of a collection
// file: they are the same in every process and never change.
template <class Key>
struct KeyWords {
  static_assert(std::has_unique_object_representations_v<Key>,
                "a key is hashed and compared by its bytes, so it has no padding and no float");
  static constexpr std::size_t kWords = (sizeof(Key) + 7) / 8;

  std::array<std::uint64_t, kWords> words{};

  [[nodiscard]] static KeyWords of(const Key& key) noexcept {
    KeyWords made;
    std::memcpy(made.words.data(), &key, sizeof(Key));
    return made;
  }

  // The top bits are the good ones.
  [[nodiscard]] std::uint64_t hash() const noexcept {
    std::uint64_t state = 0x2545f4914f6cdd1dULL;
    for (const std::uint64_t word : words) {
      state = (state ^ word) * 0x9fb21c651e98df25ULL;
      state ^= state >> 32;
    }
    return state * 0xd6e8feb86659fd93ULL;
  }

  friend bool operator==(const KeyWords&, const KeyWords&) = default;
  friend auto operator<=>(const KeyWords&, const KeyWords&) = default;
};

}  // namespace Quilt
