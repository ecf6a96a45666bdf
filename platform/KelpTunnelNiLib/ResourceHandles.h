#pragma once

#include <cstdint>

#include "KelpInLif/InLifKey.h"
#include "KelpQos/EgressRemarkProfileEntryKey.h"
#include "KelpTunnelNiLib/VlanEditResourceKey.h"
#include "PactResourceTable/ResourceHandle.h"

namespace KelpTunnelNiLib {

using InLifIndexEntryKey = KelpInLif::InLifKey;

// The two ingress logical interface indexes of a key.
struct InLifIndexResults {
  std::uint32_t first = 0;
  std::uint32_t second = 0;
};
using InLifIndexResourceHandle =
    PactResourceTable::TypedResourceHandle<InLifIndexEntryKey, InLifIndexResults>;

struct VlanEditProfileResults {
  std::uint8_t profile = 0;
};
using VlanEditProfileResourceHandle =
    PactResourceTable::TypedResourceHandle<EveResourceTableEntryKey, VlanEditProfileResults>;

using RemarkProfileResourceHandle =
    PactResourceTable::TypedResourceHandle<KelpQos::EgressRemarkProfileEntryKey,
                                           KelpQos::RemarkProfileResults>;

}  // namespace KelpTunnelNiLib
