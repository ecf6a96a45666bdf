#pragma once

#include <utility>

#include "Asic/InspectClasses.h"
#include "Brio/Attributes.h"
#include "Lumen/Node.h"
#include "Lumen/Ptr.h"

namespace Asic {

class OrderedTableInterface;

// Base of the one object per table and process through which an agent gets at a table.
class TableInterfaceBase : public Lumen::Node {
 public:
  static constexpr const char* className() { return "TableInterfaceBase"; }
  static constexpr auto attributes() {
    return Brio::attributeList(
        130, Brio::stored("orderedTableIntf", &TableInterfaceBase::orderedTableIntf_));
  }
  static constexpr const Lumen::TypeData& classData() {
    return kInspectClass<11, "TableInterfaceBase">;
  }

  ~TableInterfaceBase() override;

  // Clears the units that an earlier run left behind and that nobody asked for in this one.
  virtual void reconcile() = 0;

  [[nodiscard]] const Lumen::Ptr<OrderedTableInterface>& orderedTableIntf() const noexcept {
    return orderedTableIntf_;
  }

 protected:
  explicit TableInterfaceBase(Lumen::Ptr<OrderedTableInterface> orderedTableIntf);

 private:
  Lumen::Ptr<OrderedTableInterface> orderedTableIntf_;
};

}  // namespace Asic
