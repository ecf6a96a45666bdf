#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace Brio {

// Whether two values without padding are equal: of a small one, all words at once; of a large one,
// up to the first difference. Member by member it would cost a jump for each.
template <class T>
requires std::has_unique_object_representations_v<T>
[[nodiscard]] bool sameBytes(const T& a, const T& b) noexcept {
  if constexpr (sizeof(T) > 64) {
    return std::memcmp(&a, &b, sizeof(T)) == 0;
  }
  const auto* left = reinterpret_cast<const unsigned char*>(&a);
  const auto* right = reinterpret_cast<const unsigned char*>(&b);
  std::uint64_t difference = 0;
  const auto compare = [&](std::size_t at, std::size_t bytes) {
    std::uint64_t words[2] = {};
    std::memcpy(&words[0], left + at, bytes);
    std::memcpy(&words[1], right + at, bytes);
    difference |= words[0] ^ words[1];
  };
  constexpr std::size_t kWhole = sizeof(T) / 8 * 8;
  for (std::size_t at = 0; at < kWhole; at += 8) {
    compare(at, 8);
  }
  if constexpr (kWhole != sizeof(T)) {
    compare(kWhole, sizeof(T) - kWhole);
  }
  return difference == 0;
}

}  // namespace Brio
