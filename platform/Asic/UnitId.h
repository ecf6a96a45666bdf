#pragma once

#include <fmt/format.h>

#include <compare>
#include <cstdint>

#include "Brio/Hash.h"

namespace Asic {

// Number of a chip unit. One software table exists per table and unit.
struct UnitId {
  std::uint16_t value = 0;

  [[nodiscard]] bool isEq(const UnitId& other) const noexcept { return value == other.value; }
  [[nodiscard]] std::uint32_t hash(std::uint32_t seed) const noexcept {
    return Brio::hashSingleAttr(seed, value);
  }
  friend constexpr auto operator<=>(UnitId, UnitId) = default;
};

}  // namespace Asic

template <>
struct fmt::formatter<Asic::UnitId> : fmt::formatter<std::uint16_t> {
  template <class Context>
  auto format(const Asic::UnitId& unit, Context& context) const {
    return fmt::formatter<std::uint16_t>::format(unit.value, context);
  }
};
