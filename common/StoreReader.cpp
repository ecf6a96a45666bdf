#include "common/StoreReader.h"

#include "KelpEmServer/TableCatalogue.h"

namespace Common {

Lumen::String groupName() {
  return Asic::Constants::canonicalizeGroupName(KelpEmServer::kAgentName, KelpEmServer::kGroupName);
}

Lumen::Ptr<Asic::StatusQuilt> openStatus(const BrioSharedMem::EntityManager& memory) {
  return Lumen::dynamicPtrCast<Asic::StatusQuilt>(
      memory.openReader(Asic::Constants::groupStatusPath(groupName()), Asic::kStatusQuiltType));
}

Lumen::Ptr<Asic::NeededQuilt> openNeeded(const BrioSharedMem::EntityManager& memory,
                                         Asic::SwTableId table) {
  return Lumen::dynamicPtrCast<Asic::NeededQuilt>(memory.openReader(
      Asic::Constants::groupNeededPath(groupName(), table), Asic::kNeededQuiltType));
}

std::optional<std::uint64_t> reportedVersion(const Asic::StatusQuilt& status, Asic::SwTableId table,
                                             const BrioQuilt::CollectionControl& log) {
  bool found = false;
  const Asic::StatusQuiltEntry& row = status.map().find(table, found);
  if (!found || row.incarnation != log.incarnation()) {
    return std::nullopt;
  }
  return std::min(row.version.value, log.published());
}

}  // namespace Common
