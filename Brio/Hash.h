#pragma once

#include <concepts>
#include <cstdint>
#include <cstring>
#include <type_traits>

// Hashing for the collections that live in one process. The same key hashes alike in every run; nothing
// that another process reads depends on it.

namespace Brio {

namespace HashHelper {

// What every hash starts from, before the collection's salt comes in.
[[nodiscard]] constexpr std::uint32_t hashSeed32() noexcept { return 0x9e3779b9U; }

}  // namespace HashHelper

namespace Hash {

// Folds N words into a running 32-bit hash. A multiply and a fold each; every input bit reaches every
// output bit.
template <unsigned N>
[[nodiscard]] constexpr std::uint32_t hashMix(std::uint32_t hash,
                                              const std::uint64_t (&words)[N]) noexcept {
  std::uint64_t state = hash;
  for (const std::uint64_t word : words) {
    state = (state ^ word) * 0x9fb21c651e98df25ULL;
    state ^= state >> 32;
  }
  return static_cast<std::uint32_t>(state);
}

// Hash of `size` bytes at `data`.
[[nodiscard]] inline std::uint32_t hashBytes(std::uint32_t seed, const void* data,
                                             std::size_t size) noexcept {
  const auto* bytes = static_cast<const unsigned char*>(data);
  std::uint64_t state = seed ^ (size * 0xa0761d6478bd642fULL);
  for (; size >= 8; bytes += 8, size -= 8) {
    std::uint64_t word;
    std::memcpy(&word, bytes, 8);
    state = (state ^ word) * 0x9fb21c651e98df25ULL;
    state ^= state >> 32;
  }
  std::uint64_t word = 0;
  std::memcpy(&word, bytes, size);
  state = (state ^ word) * 0x9fb21c651e98df25ULL;
  state ^= state >> 29;
  state *= 0xe7037ed1a0b428dbULL;
  return static_cast<std::uint32_t>(state >> 32);
}

}  // namespace Hash

// Hash of a key that is one plain value without padding.
template <class T>
  requires std::has_unique_object_representations_v<T>
[[nodiscard]] std::uint32_t hashSingleAttr(std::uint32_t seed, const T& value) noexcept {
  if constexpr (sizeof(T) <= 8) {
    std::uint64_t word = 0;
    std::memcpy(&word, &value, sizeof(T));
    std::uint64_t state = (word ^ seed) * 0x9fb21c651e98df25ULL;
    state ^= state >> 32;
    state *= 0xe7037ed1a0b428dbULL;
    return static_cast<std::uint32_t>(state >> 32);
  } else {
    return Hash::hashBytes(seed, &value, sizeof(T));
  }
}

}  // namespace Brio
