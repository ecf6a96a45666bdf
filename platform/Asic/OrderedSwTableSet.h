#pragma once

#include <cstddef>
#include <vector>

#include "Asic/InspectClasses.h"
#include "Asic/LogVersion.h"
#include "Asic/OrderedSwTable.h"
#include "Brio/Attributes.h"
#include "Lumen/Node.h"
#include "PoolSlab/Slabbed.h"

namespace Asic {

// The software tables of one table, one per chip unit, with their common status.
class OrderedSwTableSet final : public Lumen::Node, public PoolSlab::Slabbed<OrderedSwTableSet> {
 public:
  // The tables as a collection by unit, for inspection.
  struct ByUnit {
    const std::vector<Lumen::Ptr<OrderedSwTable>>* tables;
  };

  static constexpr const char* className() { return "OrderedSwTableSet"; }
  static constexpr auto attributes() {
    return Brio::attributeList(130, Brio::stored("tableId", &OrderedSwTableSet::tableId_),
                               Brio::stored("status", &OrderedSwTableSet::status_),
                               Brio::collection("swTable", &OrderedSwTableSet::byUnit));
  }
  static constexpr const Lumen::TypeData& classData() {
    return kInspectClass<0, "OrderedSwTableSet">;
  }

  OrderedSwTableSet(SwTableId tableId, const Lumen::Ptr<OrderedSwTableStatus>& status)
      : tableId_(tableId), status_(status) {}
  ~OrderedSwTableSet() override;

  [[nodiscard]] const Lumen::TypeData& typeData() const override { return classData(); }

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
  [[nodiscard]] ByUnit byUnit() const noexcept { return {&tables_}; }

  SwTableId tableId_;
  Lumen::Ptr<OrderedSwTableStatus> status_;
  std::vector<Lumen::Ptr<OrderedSwTable>> tables_;
  std::size_t lastPending_ = 0;
};

}  // namespace Asic
