#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>

#include "Brio/Fields.h"
#include "Brio/Hash.h"
#include "Brio/SameBytes.h"

namespace KelpInLif {

// Names an ingress logical interface: the attachment circuit with what tells it apart on its port.
// The default-constructed key names none.
struct InLifKey {
  std::uint32_t attachmentCircuit = 0;
  std::uint16_t outerVlan = 0;
  std::uint16_t innerVlan = 0;
  std::uint32_t bridgeDomain = 0;
  std::uint32_t tunnel = 0;
  std::uint32_t vrf = 0;
  std::uint32_t flowLabel = 0;
  std::uint32_t encapId = 0;
  std::uint16_t etherType = 0x0800;
  std::uint16_t encapKind = 6;

  [[nodiscard]] bool isEq(const InLifKey& other) const noexcept {
    return Brio::sameBytes(*this, other);
  }
  [[nodiscard]] std::uint32_t hash(std::uint32_t seed) const noexcept {
    return Brio::hashSingleAttr(seed, *this);
  }
  friend constexpr auto operator<=>(const InLifKey&, const InLifKey&) = default;

  static constexpr auto fields() {
    return std::tuple{Brio::field("attachmentCircuit", &InLifKey::attachmentCircuit),
                      Brio::field("outerVlan", &InLifKey::outerVlan, 4095),
                      Brio::field("innerVlan", &InLifKey::innerVlan, 4095),
                      Brio::field("bridgeDomain", &InLifKey::bridgeDomain),
                      Brio::field("tunnel", &InLifKey::tunnel),
                      Brio::field("vrf", &InLifKey::vrf),
                      Brio::field("flowLabel", &InLifKey::flowLabel, 0xfffff),
                      Brio::field("encapId", &InLifKey::encapId),
                      Brio::field("etherType", &InLifKey::etherType),
                      Brio::field("encapKind", &InLifKey::encapKind)};
  }
};

// The 64-bit word at offset 24 reads 0x0006080000000000 in the default key.
static_assert(sizeof(InLifKey) == 32 && alignof(InLifKey) == 4);
static_assert(offsetof(InLifKey, encapId) == 24 && offsetof(InLifKey, etherType) == 28 &&
              offsetof(InLifKey, encapKind) == 30);

}  // namespace KelpInLif
