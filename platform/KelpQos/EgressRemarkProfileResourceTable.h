#pragma once

#include <cstdint>

#include "KelpQos/EgressRemarkProfileEntryKey.h"
#include "PactResourceTable/ResourceTable.h"

namespace KelpQos {

// Egress remark profiles: 8 bits. The first request of an interface decides for which type of
// remarking its profile is.
struct EgressRemarkProfileSpec {
  using Key = EgressRemarkProfileEntryKey;
  using Results = RemarkProfileResults;
  using ClientData = EgressRemarkProfileClientData;

  static constexpr const char* tableNamespace = "KelpQos";
  static constexpr const char* tableName = "EgressRemarkProfile.featureKelpEmServer";
  static constexpr const char* quiltTypeName = "KelpQos::EgressRemarkProfileResourceQuilt";
  static constexpr const char* className() { return "EgressRemarkProfileResourceTable"; }
  static constexpr const char* clientClassName() {
    return "EgressRemarkProfileResourceTable::ClientInstance";
  }
  static constexpr const char* resourceClassName() {
    return "EgressRemarkProfileResourceTable::Resource";
  }
  static constexpr const char* resourceNodeClassName() {
    return "EgressRemarkProfileResourceTable::HN_Resource";
  }
  static constexpr Asic::SwTableId tableId{0x29090003};
  static constexpr Lumen::FieldId kFieldId{518};
  static constexpr std::uint32_t kSalt = 3382957813;
  static constexpr std::uint32_t kLimit = 255;

  static Results results(std::uint32_t index, ClientData data) noexcept {
    return {static_cast<std::uint8_t>(index), data};
  }
  static ClientData clientData(std::uint16_t number) noexcept { return {number}; }
  static std::uint16_t number(ClientData data) noexcept { return data.value; }
};
using EgressRemarkProfileResourceTable = PactResourceTable::ResourceTable<EgressRemarkProfileSpec>;

}  // namespace KelpQos

extern template class PactResourceTable::ResourceTable<KelpQos::EgressRemarkProfileSpec>;
