#include "Asic/EntryLogBase.h"

#include <utility>

namespace Asic {

EntryLogBase::EntryLogBase(SwTableId tableId, const Lumen::Ptr<Vault::EntityManager>& entityManager,
                           const Lumen::Ptr<GroupInterface>& groupInterface,
                           Lumen::String agentName)
    : tableId_(tableId),
      entityManager_(entityManager),
      groupInterface_(groupInterface),
      agentName_(std::move(agentName)) {}

EntryLogBase::~EntryLogBase() = default;

LogVersion EntryLogBase::tableVersionInc(LogVersion step) {
  tableVersion_.value += step.value;
  changeLogControl_->announcedIs(tableVersion_.value);
  return tableVersion_;
}

void EntryLogBase::changeLogControlIs(const Lumen::Ptr<BrioQuilt::CollectionControl>& control) {
  changeLogControl_ = control;
}

}  // namespace Asic
