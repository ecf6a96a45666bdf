#pragma once

#include <fmt/format.h>

#include <compare>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "Brio/Array.h"
#include "Brio/Fields.h"

namespace KelpTunnelNiLib {

// How a frame is tagged on the wire: by the number of its tags and the protocol ids of the outer
// two (0: 8100, 1: 88a8, 2: 9100, 3: 9200).
enum class TagFormat : std::uint8_t {
  untagged,
  priorityTpid0,
  priorityTpid1,
  priorityTpid2,
  priorityTpid3,
  singleTpid0,
  singleTpid1,
  singleTpid2,
  singleTpid3,
  doubleTpid00,
  doubleTpid01,
  doubleTpid02,
  doubleTpid03,
  doubleTpid10,
  doubleTpid11,
  doubleTpid12,
  doubleTpid13,
  doubleTpid20,
  doubleTpid21,
  doubleTpid22,
  doubleTpid23,
  doubleTpid30,
  doubleTpid31,
  doubleTpid32,
  doubleTpid33,
  tripleTpid0,
  tripleTpid1,
  tripleTpid2,
  tripleTpid3,
  llcUntagged,
  llcTpid0,
  llcTpid1,
  llcTpid2,
  llcTpid3,
};
inline constexpr std::size_t kTagFormats = 34;
static_assert(static_cast<std::size_t>(TagFormat::llcTpid3) + 1 == kTagFormats);

// The name of a tag format as the enumerator is written; empty for a value that is none.
[[nodiscard]] std::string_view name(TagFormat format) noexcept;

// What happens to one tag of a frame.
enum class VlanAction : std::uint8_t { keep = 0, push = 1, pop = 2, swap = 3 };

// "keep", "push", "pop" or "swap"; empty for a value that is none.
[[nodiscard]] std::string_view name(VlanAction action) noexcept;

// The edit of a frame of one tag format: an action for the outer and the inner tag, and what a
// pushed or swapped tag carries.
struct VlanOp {
  VlanAction outerAction = VlanAction::keep;
  VlanAction innerAction = VlanAction::keep;
  std::uint16_t outerVlan = 0;
  std::uint16_t innerVlan = 0;
  std::uint16_t outerTpid = 0;
  std::uint16_t innerTpid = 0;
  std::uint8_t outerPriority = 0;
  std::uint8_t innerPriority = 0;
  std::uint32_t flags = 0;

  [[nodiscard]] bool isEq(const VlanOp& other) const noexcept { return *this == other; }
  [[nodiscard]] std::uint32_t hash(std::uint32_t seed) const noexcept {
    return Brio::hashSingleAttr(seed, *this);
  }
  friend constexpr auto operator<=>(const VlanOp&, const VlanOp&) = default;

  static constexpr auto fields() {
    return std::tuple{Brio::field("outerAction", &VlanOp::outerAction, 3),
                      Brio::field("innerAction", &VlanOp::innerAction, 3),
                      Brio::field("outerVlan", &VlanOp::outerVlan, 4095),
                      Brio::field("innerVlan", &VlanOp::innerVlan, 4095),
                      Brio::field("outerTpid", &VlanOp::outerTpid),
                      Brio::field("innerTpid", &VlanOp::innerTpid),
                      Brio::field("outerPriority", &VlanOp::outerPriority, 7),
                      Brio::field("innerPriority", &VlanOp::innerPriority, 7),
                      Brio::field("flags", &VlanOp::flags)};
  }
};
static_assert(sizeof(VlanOp) == 16);

// Names a VLAN edit profile by what it does: one VlanOp for each tag format. The default names
// none.
using VlanEditResourceKey = Brio::Array<VlanOp, TagFormat, kTagFormats, 0>;
static_assert(sizeof(VlanEditResourceKey) == 544);

using EveResourceTableEntryKey = VlanEditResourceKey;

}  // namespace KelpTunnelNiLib

template <>
struct fmt::formatter<KelpTunnelNiLib::VlanAction> : fmt::formatter<std::string_view> {
  template <class Context>
  auto format(KelpTunnelNiLib::VlanAction action, Context& context) const {
    return fmt::formatter<std::string_view>::format(KelpTunnelNiLib::name(action), context);
  }
};
