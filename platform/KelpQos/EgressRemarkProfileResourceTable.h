#pragma once

#include <cstdint>

#include "KelpQos/EgressRemarkProfileEntryKey.h"
#include "PactResourceTable/ResourceTable.h"

namespace KelpQos {

// Egress remark profiles: 8 bits. The first request of an interface decides for which type of
// remarking its profile is.
struct EgressRemarkProfileKind : PactResourceTable::ClassNames<EgressRemarkProfileKind> {
  using Key = EgressRemarkProfileEntryKey;
  using Results = RemarkProfileResults;
  using ClientData = EgressRemarkProfileClientData;

  static constexpr Brio::FixedString kName{"EgressRemarkProfileResourceTable"};
  static constexpr const char* tableNamespace = "KelpQos";
  static constexpr const char* tableName = "EgressRemarkProfile.featureKelpEmServer";
  static constexpr const char* quiltTypeName = "KelpQos::EgressRemarkProfileResourceQuilt";
  static constexpr Asic::SwTableId tableId{0x29090003};
  static constexpr Lumen::FieldId kFieldId{518};
  static constexpr std::uint32_t kSalt = 3382957813;
  static constexpr std::uint32_t kLimit = 255;
  template <unsigned place, Brio::FixedString className, const Lumen::TypeData* base = nullptr>
  static constexpr const Lumen::TypeData& inspectData() {
    return kInspectClass<1 + place, className, base>;
  }

  static Results results(std::uint32_t index, ClientData data) noexcept {
    return {static_cast<std::uint8_t>(index), data};
  }
};
using EgressRemarkProfileResourceTable = PactResourceTable::ResourceTable<EgressRemarkProfileKind>;

}  // namespace KelpQos

extern template class PactResourceTable::ResourceTable<KelpQos::EgressRemarkProfileKind>;
