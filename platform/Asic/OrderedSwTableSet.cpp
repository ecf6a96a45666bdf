#include "Asic/OrderedSwTableSet.h"

#include <algorithm>

namespace Asic {
namespace {

auto position(const std::vector<Lumen::Ptr<OrderedSwTable>>& tables, UnitId unitId) {
  return std::lower_bound(
      tables.begin(), tables.end(), unitId,
      [](const Lumen::Ptr<OrderedSwTable>& table, UnitId unit) { return table->unitId() < unit; });
}

}  // namespace

OrderedSwTableSet::~OrderedSwTableSet() = default;

void OrderedSwTableSet::swTableIs(const Lumen::Ptr<OrderedSwTable>& table) {
  const auto at = position(tables_, table->unitId());
  if (at != tables_.end() && (*at)->unitId() == table->unitId()) {
    tables_[static_cast<std::size_t>(at - tables_.begin())] = table;
  } else {
    tables_.insert(at, table);
  }
}

bool OrderedSwTableSet::swTableHas(UnitId unitId) const noexcept {
  const auto at = position(tables_, unitId);
  return at != tables_.end() && (*at)->unitId() == unitId;
}

Lumen::Ptr<OrderedSwTable> OrderedSwTableSet::swTable(UnitId unitId) const {
  const auto at = position(tables_, unitId);
  return at != tables_.end() && (*at)->unitId() == unitId ? *at : Lumen::Ptr<OrderedSwTable>();
}

void OrderedSwTableSet::maybeUpdatePendingHwWrites() {
  for (std::size_t i = 0; i < tables_.size(); ++i) {
    const std::size_t at =
        lastPending_ + i < tables_.size() ? lastPending_ + i : lastPending_ + i - tables_.size();
    if (tables_[at]->hasPendingHwWrites()) {
      lastPending_ = at;
      status_->pendingHwWritesIs(true);
      return;
    }
  }
  // A set without tables knows nothing: what the start found in the log stands.
  if (!tables_.empty()) {
    status_->pendingHwWritesIs(false);
  }
}

void OrderedSwTableSet::tableStatusVersion(LogVersion version) {
  // By index: a response handler may make the table of another unit.
  for (std::size_t i = 0; i < tables_.size(); ++i) {
    const Lumen::Ptr<OrderedSwTable> table = tables_[i];
    table->tableStatusVersion(version);
  }
}

}  // namespace Asic
