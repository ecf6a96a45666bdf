#pragma once

#include "Asic/InspectClasses.h"
#include "Asic/SwTableId.h"
#include "Brio/Attributes.h"
#include "Lumen/Node.h"
#include "Lumen/Publisher.h"
#include "PoolSlab/Slabbed.h"

namespace Asic {

// What the outside sees of a table, all units together.
class OrderedSwTableStatus final : public Lumen::Node,
                                   public PoolSlab::Slabbed<OrderedSwTableStatus> {
 public:
  static constexpr const char* className() { return "OrderedSwTableStatus"; }
  static constexpr Lumen::FieldId kPendingHwWritesField{131};
  static constexpr auto attributes() {
    return Brio::attributeList(
        130, Brio::stored("tableId", &OrderedSwTableStatus::tableId_),
        Brio::stored("pendingHwWrites", &OrderedSwTableStatus::pendingHwWrites_));
  }
  static constexpr const Lumen::TypeData& classData() {
    return kInspectClass<1, "OrderedSwTableStatus">;
  }

  explicit OrderedSwTableStatus(SwTableId tableId) : tableId_(tableId) {}
  ~OrderedSwTableStatus() override;

  [[nodiscard]] const Lumen::TypeData& typeData() const override { return classData(); }
  [[nodiscard]] Lumen::Publisher* publisher() const override { return &publisher_; }

  [[nodiscard]] SwTableId tableId() const noexcept { return tableId_; }
  // True while something that was written has not reached the hardware.
  [[nodiscard]] bool pendingHwWrites() const noexcept { return pendingHwWrites_; }
  // Publishes a change; an equal value does nothing.
  void pendingHwWritesIs(bool pending);

 private:
  SwTableId tableId_;
  bool pendingHwWrites_ = false;
  mutable Lumen::Publisher publisher_;
};

}  // namespace Asic
