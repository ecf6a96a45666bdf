#pragma once

#include <compare>
#include <cstdint>
#include <tuple>

#include "Brio/Fields.h"
#include "Brio/Hash.h"
#include "KelpQos/InspectClasses.h"
#include "Netkit/IntfId.h"
#include "PactResourceTable/ResourceHandle.h"

namespace KelpQos {

// Names an egress remark profile by the interface that it serves. The default, the interface of the
// empty name, names none.
struct EgressRemarkProfileEntryKey {
  Netkit::IntfId intf;

  [[nodiscard]] bool isEq(const EgressRemarkProfileEntryKey& other) const noexcept {
    return intf == other.intf;
  }
  [[nodiscard]] std::uint32_t hash(std::uint32_t seed) const noexcept {
    return Brio::hashSingleAttr(seed, intf.value);
  }
  friend constexpr auto operator<=>(const EgressRemarkProfileEntryKey&,
                                    const EgressRemarkProfileEntryKey&) = default;

  static constexpr auto fields() {
    return std::tuple{Brio::field("intf", &EgressRemarkProfileEntryKey::intf)};
  }
};
static_assert(sizeof(EgressRemarkProfileEntryKey) == 8);

// What a remark profile is asked for with: the 16-bit type of remarking.
struct EgressRemarkProfileClientData {
  std::uint16_t value = 0;

  // As it is stored.
  static EgressRemarkProfileClientData of(std::uint16_t number) noexcept { return {number}; }
  [[nodiscard]] std::uint16_t number() const noexcept { return value; }

  friend constexpr auto operator<=>(EgressRemarkProfileClientData,
                                    EgressRemarkProfileClientData) = default;
};

// What comes back: the profile, and the type of remarking that it was given for.
struct RemarkProfileResults {
  std::uint8_t profile = 0;
  EgressRemarkProfileClientData clientData;

  static constexpr auto fields() {
    return std::tuple{Brio::field("profile", &RemarkProfileResults::profile),
                      Brio::field("clientData", &RemarkProfileResults::clientData)};
  }
  static constexpr const Lumen::TypeData& handleData() {
    return kInspectClass<0, "RemarkProfileResourceHandle",
                         &PactResourceTable::ResourceHandle::classData()>;
  }
};

}  // namespace KelpQos
