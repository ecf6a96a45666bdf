#pragma once

#include <cstdint>

#include "Asic/Constants.h"
#include "Asic/GroupQuilts.h"
#include "BrioQuilt/MountInfo.h"
#include "BrioSharedMem/EntityManager.h"
#include "KelpEmServer/TableCatalogue.h"
#include "Lumen/Ptr.h"

namespace TestSupport {

// The hardware side's hand: the writer of the group's status collection, in the process of the
// test.
class HardwareSide {
 public:
  explicit HardwareSide(const Lumen::Ptr<BrioSharedMem::EntityManager>& manager) {
    const Lumen::String path = Asic::Constants::groupStatusPath(
        Asic::Constants::canonicalizeGroupName(KelpEmServer::kAgentName, KelpEmServer::kGroupName));
    const auto group = manager->getMountGroup();
    BrioQuilt::MountInfo info(BrioQuilt::BrioQuiltType::collection);
    info.collectionInfoIs(
        BrioQuilt::CollectionInfo(Asic::kStatusCollection, Asic::kStatusCapacity, false));
    (void)group->mount(path, Asic::kStatusQuiltType, info);
    group->doClose();
    status_ = Lumen::dynamicPtrCast<Asic::StatusQuilt>(manager->getEntity(path));
  }

  // Publishes a row: the table has been taken in up to `version` of the log's `incarnation`.
  void report(Asic::SwTableId tableId, std::uint64_t version, std::uint64_t incarnation) {
    Asic::StatusQuiltEntry row;
    row.tableId = tableId;
    row.version = Asic::LogVersion{version};
    row.incarnation = incarnation;
    status_->map().recordIs(row);
  }
  [[nodiscard]] const Lumen::Ptr<Asic::StatusQuilt>& status() const noexcept { return status_; }

 private:
  Lumen::Ptr<Asic::StatusQuilt> status_;
};

}  // namespace TestSupport
