#pragma once

#include <string_view>

#include "Asic/DependencyEntryHandle.h"
#include "Asic/EntryState.h"
#include "Asic/InspectClasses.h"
#include "Asic/SwTableId.h"
#include "Asic/UnitId.h"
#include "Brio/Attributes.h"
#include "Brio/Entity.h"

namespace Asic {

// Base of every software table: one table of one chip unit.
class SwTableBase : public Brio::Entity {
 public:
  using EntryState = Asic::EntryState;

  // Base of the handles of a table's entries. A handle may outlive its table, so it carries the
  // table's id and name itself.
  class EntryHandle : public DependencyEntryHandle {
   public:
    static constexpr const char* className() { return "SwTableBase::EntryHandle"; }
    static constexpr auto attributes() {
      return Brio::attributeList(258, Brio::view("tableId", &EntryHandle::tableId));
    }
    static constexpr const Lumen::TypeData& classData() {
      return kInspectClass<5, "SwTableBase::EntryHandle", &DependencyEntryHandle::classData()>;
    }

    ~EntryHandle() override;

    [[nodiscard]] virtual std::string_view tableName() const = 0;
    [[nodiscard]] virtual SwTableId tableId() const = 0;
  };

  static constexpr const char* className() { return "SwTableBase"; }
  static constexpr auto attributes() {
    return Brio::attributeList(258, Brio::stored("tableId", &SwTableBase::tableId_),
                               Brio::stored("unitId", &SwTableBase::unitId_));
  }
  static constexpr const Lumen::TypeData& classData() { return kInspectClass<4, "SwTableBase">; }

  ~SwTableBase() override;

  // Where a table makes its counterpart in hardware, for tables that have one to make.
  virtual void doCreateHwTable() = 0;
  // Called when that counterpart has been made.
  virtual void doCreateHwTableResponse();

  [[nodiscard]] SwTableId tableId() const noexcept { return tableId_; }
  [[nodiscard]] UnitId unitId() const noexcept { return unitId_; }

 protected:
  SwTableBase(SwTableId tableId, UnitId unitId) : tableId_(tableId), unitId_(unitId) {}

 private:
  SwTableId tableId_;
  UnitId unitId_;
};

}  // namespace Asic
