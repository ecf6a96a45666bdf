#pragma once

#include <cstdint>

#include "KelpTunnelNiLib/ResourceHandles.h"
#include "PactResourceTable/ResourceTable.h"

// The resource tables of tunnels and interfaces.

namespace KelpTunnelNiLib {

// Ingress logical interface indexes: two for each key.
struct InLifIndexKind : PactResourceTable::ClassNames<InLifIndexKind> {
  using Key = InLifIndexEntryKey;
  using Results = InLifIndexResults;
  using ClientData = PactResourceTable::NoClientData;

  static constexpr Brio::FixedString kName{"InLifIndexResourceTable"};
  static constexpr const char* tableNamespace = "KelpTunnelNiLib";
  static constexpr const char* tableName = "InLifIndex.featureKelpEmServer";
  static constexpr const char* quiltTypeName = "KelpTunnelNiLib::InLifIndexResourceQuilt";
  static constexpr Asic::SwTableId tableId{0x29090001};
  static constexpr Lumen::FieldId kFieldId{517};
  static constexpr std::uint32_t kSalt = 2894171953;
  static constexpr std::uint32_t kLimit = 1U << 20;
  template <unsigned place, Brio::FixedString className, const Lumen::TypeData* base = nullptr>
  static constexpr const Lumen::TypeData& inspectData() {
    return kInspectClass<2 + place, className, base>;
  }

  static Results results(std::uint32_t index, ClientData) noexcept {
    return index == 0 ? Results{} : Results{2 * index - 1, 2 * index};
  }
};
using InLifIndexResourceTable = PactResourceTable::ResourceTable<InLifIndexKind>;

// VLAN edit profiles: 8 bits.
struct EveResourceTableKind : PactResourceTable::ClassNames<EveResourceTableKind> {
  using Key = EveResourceTableEntryKey;
  using Results = VlanEditProfileResults;
  using ClientData = PactResourceTable::NoClientData;

  static constexpr Brio::FixedString kName{"EveResourceTableResourceTable"};
  static constexpr const char* tableNamespace = "KelpTunnelNiLib";
  static constexpr const char* tableName = "EveResourceTable.featureKelpEmServer";
  static constexpr const char* quiltTypeName = "KelpTunnelNiLib::EveResourceTableResourceQuilt";
  static constexpr Asic::SwTableId tableId{0x29090002};
  static constexpr Lumen::FieldId kFieldId{517};
  static constexpr std::uint32_t kSalt = 1215447209;
  static constexpr std::uint32_t kLimit = 255;
  template <unsigned place, Brio::FixedString className, const Lumen::TypeData* base = nullptr>
  static constexpr const Lumen::TypeData& inspectData() {
    return kInspectClass<5 + place, className, base>;
  }

  static Results results(std::uint32_t index, ClientData) noexcept {
    return {static_cast<std::uint8_t>(index)};
  }
};
using EveResourceTableResourceTable = PactResourceTable::ResourceTable<EveResourceTableKind>;

}  // namespace KelpTunnelNiLib

extern template class PactResourceTable::ResourceTable<KelpTunnelNiLib::InLifIndexKind>;
extern template class PactResourceTable::ResourceTable<KelpTunnelNiLib::EveResourceTableKind>;
