#pragma once

#include <cstdint>

#include "KelpTunnelNiLib/ResourceHandles.h"
#include "PactResourceTable/ResourceTable.h"

// The resource tables of tunnels and interfaces.

namespace KelpTunnelNiLib {

// Nothing comes with a request.
struct NoClientData {};

// Ingress logical interface indexes: two for each key.
struct InLifIndexSpec {
  using Key = InLifIndexEntryKey;
  using Results = InLifIndexResults;
  using ClientData = NoClientData;

  static constexpr const char* tableNamespace = "KelpTunnelNiLib";
  static constexpr const char* tableName = "InLifIndex.featureKelpEmServer";
  static constexpr const char* quiltTypeName = "KelpTunnelNiLib::InLifIndexResourceQuilt";
  static constexpr const char* className() { return "InLifIndexResourceTable"; }
  static constexpr const char* clientClassName() {
    return "InLifIndexResourceTable::ClientInstance";
  }
  static constexpr const char* resourceClassName() { return "InLifIndexResourceTable::Resource"; }
  static constexpr const char* resourceNodeClassName() {
    return "InLifIndexResourceTable::HN_Resource";
  }
  static constexpr Asic::SwTableId tableId{0x29090001};
  static constexpr Lumen::FieldId kFieldId{517};
  static constexpr std::uint32_t kSalt = 2894171953;
  static constexpr std::uint32_t kLimit = 1U << 20;

  // The second index is that of the logical interface behind the first.
  static Results results(std::uint32_t index, ClientData) noexcept {
    return {2 * index - 1, 2 * index};
  }
  static ClientData clientData(std::uint16_t) noexcept { return {}; }
  static std::uint16_t number(ClientData) noexcept { return 0; }
};
using InLifIndexResourceTable = PactResourceTable::ResourceTable<InLifIndexSpec>;

// VLAN edit profiles: 8 bits.
struct EveResourceTableSpec {
  using Key = EveResourceTableEntryKey;
  using Results = VlanEditProfileResults;
  using ClientData = NoClientData;

  static constexpr const char* tableNamespace = "KelpTunnelNiLib";
  static constexpr const char* tableName = "EveResourceTable.featureKelpEmServer";
  static constexpr const char* quiltTypeName = "KelpTunnelNiLib::EveResourceTableResourceQuilt";
  static constexpr const char* className() { return "EveResourceTableResourceTable"; }
  static constexpr const char* clientClassName() {
    return "EveResourceTableResourceTable::ClientInstance";
  }
  static constexpr const char* resourceClassName() {
    return "EveResourceTableResourceTable::Resource";
  }
  static constexpr const char* resourceNodeClassName() {
    return "EveResourceTableResourceTable::HN_Resource";
  }
  static constexpr Asic::SwTableId tableId{0x29090002};
  static constexpr Lumen::FieldId kFieldId{517};
  static constexpr std::uint32_t kSalt = 1215447209;
  static constexpr std::uint32_t kLimit = 255;

  static Results results(std::uint32_t index, ClientData) noexcept {
    return {static_cast<std::uint8_t>(index)};
  }
  static ClientData clientData(std::uint16_t) noexcept { return {}; }
  static std::uint16_t number(ClientData) noexcept { return 0; }
};
using EveResourceTableResourceTable = PactResourceTable::ResourceTable<EveResourceTableSpec>;

}  // namespace KelpTunnelNiLib

extern template class PactResourceTable::ResourceTable<KelpTunnelNiLib::InLifIndexSpec>;
extern template class PactResourceTable::ResourceTable<KelpTunnelNiLib::EveResourceTableSpec>;
