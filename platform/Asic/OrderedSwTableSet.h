#pragma once

#include <cstddef>
#include <vector>

#include "Asic/LogVersion.h"
#include "Asic/OrderedSwTable.h"
#include "Lumen/Node.h"
#include "PoolSlab/Slabbed.h"

namespace Asic {

// The software tables of one table, one per chip unit, with their common status.
class OrderedSwTableSet final : public Lumen::Node, public PoolSlab::Slabbed<OrderedSwTableSet> {
 public:
  static constexpr const char* className() { return "OrderedSwTableSet"; }

  OrderedSwTableSet(SwTableId tableId, const Lumen::Ptr<OrderedSwTableStatus>& status)
      : tableId_(tableId), status_(status) {}
  ~OrderedSwTableSet() override;

  [[nodiscard]] SwTableId tableId() const noexcept { return tableId_; }
  [[nodiscard]] const Lumen::Ptr<OrderedSwTableStatus>& status() const noexcept { return status_; }

  // Enters a table under its unit, in place of one that is there.
  void swTableIs(const Lumen::Ptr<OrderedSwTable>& table);
  [[nodiscard]] bool swTableHas(UnitId unitId) const noexcept;
  // Null if the unit has no table.
  [[nodiscard]] Lumen::Ptr<OrderedSwTable> swTable(UnitId unitId) const;
  // In the order of the units.
  [[nodiscard]] const std::vector<Lumen::Ptr<OrderedSwTable>>& swTables() const noexcept {
    return tables_;
  }

  // Sets the status's pendingHwWrites to whether any table of the set answers hasPendingHwWrites()
  // with true. The table that said so last is asked first, so that a burst of writes costs one
  // question each.
  void maybeUpdatePendingHwWrites();

  // Hands a report of the hardware side to every unit's table.
  void tableStatusVersion(LogVersion version);

 private:
  SwTableId tableId_;
  Lumen::Ptr<OrderedSwTableStatus> status_;
  std::vector<Lumen::Ptr<OrderedSwTable>> tables_;
  std::size_t lastPending_ = 0;
};

}  // namespace Asic
