#include "Asic/OrderedSwTable.h"

namespace Asic {

SwTableBase::EntryHandle::~EntryHandle() = default;
SwTableBase::~SwTableBase() = default;
void SwTableBase::doCreateHwTableResponse() {}

NamedSwTable::~NamedSwTable() = default;
void NamedSwTable::reconcile() {}

OrderedSwTableStatus::~OrderedSwTableStatus() = default;

void OrderedSwTableStatus::pendingHwWritesIs(bool pending) {
  if (pending == pendingHwWrites_) {
    return;
  }
  const bool old = std::exchange(pendingHwWrites_, pending);
  publisher_.publishChange(kPendingHwWritesField, nullptr, &old);
}

OrderedSwTable::EntryHandle::~EntryHandle() = default;
OrderedSwTable::~OrderedSwTable() = default;

void OrderedSwTable::statsIs() {
  if (!stats_) {
    stats_ = Lumen::makeNode<SwTableStats>();
  }
}

OrderedSwTableWithMarkSweep::~OrderedSwTableWithMarkSweep() = default;

}  // namespace Asic
