#include "Asic/TableInterfaceBase.h"

#include "Asic/OrderedTableInterface.h"

namespace Asic {

TableInterfaceBase::TableInterfaceBase(Lumen::Ptr<OrderedTableInterface> orderedTableIntf)
    : orderedTableIntf_(std::move(orderedTableIntf)) {}

TableInterfaceBase::~TableInterfaceBase() = default;

}  // namespace Asic
