#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace Brio {

// A string that is known at compile time, put together from others and passed as a template
// argument.
template <std::size_t N>
struct FixedString {
  char chars[N + 1]{};

  constexpr FixedString() = default;
  constexpr FixedString(const char (&text)[N + 1]) { std::copy_n(text, N, chars); }

  [[nodiscard]] constexpr const char* c_str() const noexcept { return chars; }
  [[nodiscard]] constexpr std::string_view view() const noexcept { return {chars, N}; }

  template <std::size_t M>
  [[nodiscard]] constexpr FixedString<N + M> operator+(const FixedString<M>& other) const {
    FixedString<N + M> sum;
    std::copy_n(chars, N, sum.chars);
    std::copy_n(other.chars, M, sum.chars + N);
    return sum;
  }
  template <std::size_t M>
  [[nodiscard]] constexpr auto operator+(const char (&text)[M]) const {
    return *this + FixedString<M - 1>(text);
  }
};

template <std::size_t M>
FixedString(const char (&)[M]) -> FixedString<M - 1>;

}  // namespace Brio
