#pragma once

#include <compare>
#include <cstdint>

namespace Asic {

// A hardware index that a table hands out. All ones: none.
struct Index {
  static constexpr std::uint32_t kNone = 0xffffffff;

  std::uint32_t value = kNone;

  [[nodiscard]] constexpr bool valid() const noexcept { return value != kNone; }
  friend constexpr auto operator<=>(Index, Index) = default;
};

}  // namespace Asic
