#pragma once

#include <utility>

#include "Asic/CanonicalTableName.h"
#include "Asic/InspectClasses.h"
#include "Asic/SwTableBase.h"
#include "Lumen/Ptr.h"

namespace Asic {

// A software table that is found by its canonical name.
class NamedSwTable : public SwTableBase {
 public:
  static constexpr const char* className() { return "NamedSwTable"; }
  static constexpr auto attributes() {
    return Brio::attributeList(386, Brio::stored("canonicalName", &NamedSwTable::canonicalName_));
  }
  static constexpr const Lumen::TypeData& classData() {
    return kInspectClass<6, "NamedSwTable", &SwTableBase::classData()>;
  }

  ~NamedSwTable() override;

  // Brings the table in line with what an earlier run left. Nothing unless a class has something to
  // do.
  virtual void reconcile();

  [[nodiscard]] const Lumen::Ptr<const CanonicalTableName>& canonicalName() const noexcept {
    return canonicalName_;
  }

 protected:
  NamedSwTable(Lumen::Ptr<const CanonicalTableName> canonicalName, SwTableId tableId, UnitId unitId)
      : SwTableBase(tableId, unitId), canonicalName_(std::move(canonicalName)) {}

 private:
  Lumen::Ptr<const CanonicalTableName> canonicalName_;
};

}  // namespace Asic
