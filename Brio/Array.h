#pragma once

#include <fmt/format.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "Brio/Hash.h"

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
  [[nodiscard]] bool isEq(const Array& other) const noexcept { return elements == other.elements; }
  [[nodiscard]] std::uint32_t hash(std::uint32_t seed) const noexcept {
    return hashSingleAttr(seed, *this);
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
