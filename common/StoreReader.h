#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "Asic/Constants.h"
#include "Asic/GroupQuilts.h"
#include "Asic/UnitId.h"
#include "BrioQuilt/CollectionControl.h"
#include "BrioSharedMem/EntityManager.h"
#include "BrioSharedMem/StoreError.h"
#include "KelpEmServer/KelpConstants.h"
#include "KelpEmServer/TableSpec.h"
#include "Lumen/Ptr.h"
#include "Lumen/String.h"
#include "PactResourceTable/Records.h"

// The collections of a store, opened for reading beside the programs that write them. Each function
// that opens one maps it anew and throws BrioSharedMem::StoreError: AbsentError if it is not there
// (yet), OtherLayoutError if this program was built for another layout.

namespace Common {

// AGENT/GROUP of all tables.
[[nodiscard]] Lumen::String groupName();

// Where a collection of the resource table of Kind lies.
template <class Kind>
[[nodiscard]] Lumen::String resourcePath(const char* collection) {
  return PactResourceTable::collectionPath(Kind::tableNamespace, Kind::tableName, collection);
}

// The change log of T.
template <KelpEmServer::TableSpec T>
[[nodiscard]] Lumen::Ptr<typename T::EntryLogQuilt> openLog(
    const BrioSharedMem::EntityManager& memory) {
  return Lumen::dynamicPtrCast<typename T::EntryLogQuilt>(memory.openReader(
      KelpEmServer::KelpConstants<T>::tableEntryLogQuiltPath(),
      KelpEmServer::kTextOfTable<T, "KelpTunnelNiLib::", "EntryLogQuilt">.c_str()));
}

// The configuration collection of T on one unit.
template <KelpEmServer::TableSpec T>
[[nodiscard]] Lumen::Ptr<typename T::ConfigQuilt> openConfig(
    const BrioSharedMem::EntityManager& memory, Asic::UnitId unit) {
  return Lumen::dynamicPtrCast<typename T::ConfigQuilt>(
      memory.openReader(KelpEmServer::KelpConstants<T>::configQuiltPath(unit),
                        KelpEmServer::kTextOfTable<T, "KelpTunnelNiLib::", "ConfigQuilt">.c_str()));
}

// The units of which T has a configuration collection, rising. Costs a look through a folder.
template <KelpEmServer::TableSpec T>
[[nodiscard]] std::vector<Asic::UnitId> unitsOf(const BrioSharedMem::EntityManager& memory) {
  using Constants = KelpEmServer::KelpConstants<T>;
  std::vector<Asic::UnitId> units;
  const auto found = memory.findEntities(Constants::configQuiltPathBase(),
                                         BrioSharedMem::BrioSharedMemType::quilt);
  for (const Lumen::String& path : found->paths()) {
    const auto unit = Asic::Constants::getUnitIdFromConfigPath(path);
    if (unit && path == Constants::configQuiltPath(*unit)) {
      units.push_back(*unit);
    }
  }
  std::sort(units.begin(), units.end());
  return units;
}

// A collection of the resource table of Kind: PactResourceTable::kResources, kHolds or kReleases.
template <class Kind>
[[nodiscard]] Lumen::Ptr<PactResourceTable::ResourceQuilt<typename Kind::Key>> openResources(
    const BrioSharedMem::EntityManager& memory) {
  return Lumen::dynamicPtrCast<PactResourceTable::ResourceQuilt<typename Kind::Key>>(
      memory.openReader(resourcePath<Kind>(PactResourceTable::kResources), Kind::quiltTypeName));
}
template <class Kind>
[[nodiscard]] Lumen::Ptr<PactResourceTable::HoldQuilt> openHolds(
    const BrioSharedMem::EntityManager& memory) {
  return Lumen::dynamicPtrCast<PactResourceTable::HoldQuilt>(memory.openReader(
      resourcePath<Kind>(PactResourceTable::kHolds), PactResourceTable::kHoldQuiltType));
}
template <class Kind>
[[nodiscard]] Lumen::Ptr<PactResourceTable::ReleaseQuilt> openReleases(
    const BrioSharedMem::EntityManager& memory) {
  return Lumen::dynamicPtrCast<PactResourceTable::ReleaseQuilt>(memory.openReader(
      resourcePath<Kind>(PactResourceTable::kReleases), PactResourceTable::kReleaseQuiltType));
}

// Calls visit(record) for each record, deleted ones among them. Throws CorruptionDetectedException.
template <class Record, class Visit>
void forEachRecord(const Quilt::QuiltMap<Record>& records, Visit&& visit) {
  Record record;
  Quilt::IterHint hint;
  for (bool more = records.first(record, hint); more;
       more = records.next(record.quiltKey(), record, hint)) {
    visit(std::as_const(record));
  }
}

// What the hardware side has reported.
[[nodiscard]] Lumen::Ptr<Asic::StatusQuilt> openStatus(const BrioSharedMem::EntityManager& memory);
// What the records of a table's log wait for.
[[nodiscard]] Lumen::Ptr<Asic::NeededQuilt> openNeeded(const BrioSharedMem::EntityManager& memory,
                                                       Asic::SwTableId table);

// Up to which version of this log the hardware side has reported it; nothing if it never did. A
// report of more than is published counts as all that is. Throws CorruptionDetectedException.
[[nodiscard]] std::optional<std::uint64_t> reportedVersion(const Asic::StatusQuilt& status,
                                                           Asic::SwTableId table,
                                                           const BrioQuilt::CollectionControl& log);

}  // namespace Common
