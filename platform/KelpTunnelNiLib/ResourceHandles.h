#pragma once

#include <cstdint>
#include <tuple>

#include "Brio/Fields.h"
#include "KelpInLif/InLifKey.h"
#include "KelpQos/EgressRemarkProfileEntryKey.h"
#include "KelpTunnelNiLib/InspectClasses.h"
#include "KelpTunnelNiLib/VlanEditResourceKey.h"
#include "PactResourceTable/ResourceHandle.h"

namespace KelpTunnelNiLib {

using InLifIndexEntryKey = KelpInLif::InLifKey;

// The two ingress logical interface indexes of a key.
struct InLifIndexResults {
  std::uint32_t first = 0;
  std::uint32_t second = 0;

  static constexpr auto fields() {
    return std::tuple{Brio::field("first", &InLifIndexResults::first),
                      Brio::field("second", &InLifIndexResults::second)};
  }
  static constexpr const Lumen::TypeData& handleData() {
    return kInspectClass<0, "InLifIndexResourceHandle",
                         &PactResourceTable::ResourceHandle::classData()>;
  }
};
using InLifIndexResourceHandle =
    PactResourceTable::TypedResourceHandle<InLifIndexEntryKey, InLifIndexResults>;

struct VlanEditProfileResults {
  std::uint8_t profile = 0;

  static constexpr auto fields() {
    return std::tuple{Brio::field("profile", &VlanEditProfileResults::profile)};
  }
  static constexpr const Lumen::TypeData& handleData() {
    return kInspectClass<1, "VlanEditProfileResourceHandle",
                         &PactResourceTable::ResourceHandle::classData()>;
  }
};
using VlanEditProfileResourceHandle =
    PactResourceTable::TypedResourceHandle<EveResourceTableEntryKey, VlanEditProfileResults>;

using RemarkProfileResourceHandle =
    PactResourceTable::TypedResourceHandle<KelpQos::EgressRemarkProfileEntryKey,
                                           KelpQos::RemarkProfileResults>;

}  // namespace KelpTunnelNiLib
