#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

// Hashing for the collections that live in one process. The same key hashes alike in every run;
// nothing that another process reads depends on it.
//
// Everything rests on one step, fold(): a full 64 by 64 bit product whose halves are xored. A
// collection takes its bucket from the top bits of a hash and tells members of a bucket apart by
// the low ones, so both ends must be good; the tests measure both on dense, strided and packed
// keys.

namespace Brio {

namespace HashHelper {

// What every hash starts from, before the collection's salt comes in.
[[nodiscard]] constexpr std::uint32_t hashSeed32() noexcept { return 0x9e3779b9U; }

}  // namespace HashHelper

namespace Hash {

// Odd constants with half of their bits set, without structure.
inline constexpr std::uint64_t kMultiplier[4] = {0x9fb21c651e98df25ULL, 0xe7037ed1a0b428dbULL,
                                                 0xa0761d6478bd642fULL, 0x8ebc6af09c88c6e3ULL};

[[nodiscard]] constexpr std::uint64_t fold(std::uint64_t a, std::uint64_t b) noexcept {
  __extension__ using Product = unsigned __int128;
  const Product product = static_cast<Product>(a) * b;
  return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

[[nodiscard]] constexpr std::uint32_t finish(std::uint64_t state) noexcept {
  return static_cast<std::uint32_t>(fold(state, kMultiplier[3]) >> 32);
}

// Folds N words into a running 32-bit hash. Every input bit reaches every output bit. The products
// of the words wait neither for each other nor for the running hash, which comes in last, so a long
// key is best mixed four words at a time.
template <unsigned N>
[[nodiscard]] constexpr std::uint32_t hashMix(std::uint32_t hash,
                                              const std::uint64_t (&words)[N]) noexcept {
  std::uint64_t state = kMultiplier[1];
  for (unsigned i = 0; i < N; i += 2) {
    const std::uint64_t second = i + 1 < N ? words[i + 1] : N;
    state ^= fold(words[i] ^ kMultiplier[(i / 2) & 1], second + kMultiplier[2] + i);
  }
  return finish(state ^ (std::uint64_t{hash} << 32 | hash));
}

// Hash of `size` bytes at `data`. Two chains of products run side by side.
[[nodiscard]] inline std::uint32_t hashBytes(std::uint32_t seed, const void* data,
                                             std::size_t size) noexcept {
  const auto* bytes = static_cast<const unsigned char*>(data);
  const auto word = [](const unsigned char* at) {
    std::uint64_t value;
    std::memcpy(&value, at, sizeof value);
    return value;
  };
  std::uint64_t state = (seed ^ size * kMultiplier[2]) ^ kMultiplier[0];
  if (size >= 32) {
    std::uint64_t second = state ^ kMultiplier[3];
    for (; size >= 32; bytes += 32, size -= 32) {
      state = fold(word(bytes) ^ state, word(bytes + 8) ^ kMultiplier[1]);
      second = fold(word(bytes + 16) ^ second, word(bytes + 24) ^ kMultiplier[2]);
    }
    state ^= second * kMultiplier[0];
  }
  for (; size >= 16; bytes += 16, size -= 16) {
    state = fold(word(bytes) ^ state, word(bytes + 8) ^ kMultiplier[1]);
  }
  if (size != 0) {
    std::uint64_t tail[2] = {0, 0};
    std::memcpy(tail, bytes, size);
    state = fold(tail[0] ^ state, tail[1] ^ kMultiplier[1]);
  }
  return finish(state ^ kMultiplier[2]);
}

}  // namespace Hash

// Hash of a key that is one plain value without padding.
template <class T>
requires std::has_unique_object_representations_v<T>
[[nodiscard]] std::uint32_t hashSingleAttr(std::uint32_t seed, const T& value) noexcept {
  if constexpr (sizeof(T) <= 8) {
    std::uint64_t word = 0;
    std::memcpy(&word, &value, sizeof(T));
    return Hash::finish(Hash::fold(word ^ (seed * Hash::kMultiplier[2]), Hash::kMultiplier[0]));
  } else {
    return Hash::hashBytes(seed, &value, sizeof(T));
  }
}

}  // namespace Brio
