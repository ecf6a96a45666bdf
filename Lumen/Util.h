#pragma once

#include <bit>
#include <cstdint>

#include "Lumen/Assert.h"

namespace Lumen {

[[nodiscard]] constexpr bool isPowerOfTwo(std::uint32_t i) noexcept {
  return std::has_single_bit(i);
}

// The n of i = 2^n. Asserts that `i` is a power of two.
[[nodiscard]] inline unsigned powerOfTwoLog2(std::uint32_t i) noexcept {
  assertThat(isPowerOfTwo(i), "isPowerOfTwo( i )");
  return static_cast<unsigned>(std::countr_zero(i));
}

}  // namespace Lumen
