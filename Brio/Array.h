#pragma once

#include <fmt/format.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "Brio/Hash.h"
#include "Brio/SameBytes.h"

namespace Brio {

// A plain array of N values, indexed by the enumeration or integer Index, whose first value is
// First.
template <class T, class Index, std::size_t N, std::size_t First>
struct Array {
  std::array<T, N> elements{};

  [[nodiscard]] static constexpr std::size_t size() noexcept { return N; }
  [[nodiscard]] T& operator[](Index index) noexcept { return elements[position(index)]; }
  [[nodiscard]] const T& operator[](Index index) const noexcept {
    return elements[position(index)];
  }
  [[nodiscard]] auto begin() const noexcept { return elements.begin(); }
  [[nodiscard]] auto end() const noexcept { return elements.end(); }
  [[nodiscard]] bool isEq(const Array& other) const noexcept {
    if constexpr (std::has_unique_object_representations_v<T>) {
      return sameBytes(elements, other.elements);
    } else {
      return elements == other.elements;
    }
  }
  // Mixes element after element, four words at a time.
  [[nodiscard]] std::uint32_t hash(std::uint32_t seed) const noexcept {
    static_assert(std::has_unique_object_representations_v<T>);
    const auto* bytes = reinterpret_cast<const unsigned char*>(elements.data());
    for (std::size_t left = sizeof elements; left != 0;) {
      std::uint64_t words[4] = {};
      const std::size_t size = left < sizeof words ? left : sizeof words;
      std::memcpy(words, bytes, size);
      seed = Hash::hashMix<4>(seed, words);
      bytes += size;
      left -= size;
    }
    return seed;
  }
  friend constexpr auto operator<=>(const Array&, const Array&) = default;

 private:
  static constexpr std::size_t position(Index index) noexcept {
    return static_cast<std::size_t>(index) - First;
  }
};

}  // namespace Brio

// Only what differs from a default element is shown, with its index.
template <class T, class Index, std::size_t N, std::size_t First>
struct fmt::formatter<Brio::Array<T, Index, N, First>> {
  constexpr auto parse(fmt::format_parse_context& context) { return context.begin(); }
  template <class Context>
  auto format(const Brio::Array<T, Index, N, First>& array, Context& context) const {
    auto out = context.out();
    *out++ = '[';
    bool first = true;
    for (std::size_t i = 0; i < N; ++i) {
      if (!(array.elements[i] == T{})) {
        const std::size_t index = First + i;
        out = fmt::format_to(out, "{}{}: {}", first ? "" : ", ", index, array.elements[i]);
        first = false;
      }
    }
    *out++ = ']';
    return out;
  }
};
