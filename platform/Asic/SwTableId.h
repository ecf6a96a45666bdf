#pragma once

#include <fmt/format.h>

#include <compare>
#include <cstdint>

#include "Brio/Hash.h"

namespace Asic {

// Names a table inside an agent and a group: 8 bits of agent, 8 of group, 16 of table, from the
// top.
struct SwTableId {
  std::uint32_t value = 0;

  [[nodiscard]] constexpr std::uint8_t agentId() const noexcept {
    return static_cast<std::uint8_t>(value >> 24);
  }
  [[nodiscard]] constexpr std::uint8_t groupId() const noexcept {
    return static_cast<std::uint8_t>(value >> 16);
  }
  [[nodiscard]] constexpr std::uint16_t tblId() const noexcept {
    return static_cast<std::uint16_t>(value);
  }
  // Agent and group together.
  [[nodiscard]] constexpr std::uint16_t agentAndGroupId() const noexcept {
    return static_cast<std::uint16_t>(value >> 16);
  }

  [[nodiscard]] bool isEq(const SwTableId& other) const noexcept { return value == other.value; }
  [[nodiscard]] std::uint32_t hash(std::uint32_t seed) const noexcept {
    return Brio::hashSingleAttr(seed, value);
  }
  friend constexpr auto operator<=>(SwTableId, SwTableId) = default;
};

}  // namespace Asic

// agent:group:table, in hexadecimal.
template <>
struct fmt::formatter<Asic::SwTableId> {
  constexpr auto parse(fmt::format_parse_context& context) { return context.begin(); }
  template <class Context>
  auto format(const Asic::SwTableId& id, Context& context) const {
    return fmt::format_to(context.out(), "{:02x}:{:02x}:{:04x}", id.agentId(), id.groupId(),
                          id.tblId());
  }
};
