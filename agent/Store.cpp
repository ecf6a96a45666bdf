#include "agent/Store.h"

#include "Asic/Constants.h"
#include "Asic/GenId.h"
#include "Asic/SharedMemory.h"
#include "KelpEmServer/AllTables.h"
#include "KelpEmServer/MountQuilt.h"
#include "KelpEmServer/TableCatalogue.h"

namespace Agent {

using BrioSharedMem::Bell;

Store::Store(const std::string& name, const std::string& root)
    : vault_(Lumen::makeNode<Vault::EntityManager>(name, false, root)) {
  vault_->entityIs<Asic::GenId>(KelpEmServer::relaunchPath(KelpEmServer::kAgentName));
  agent_ = Lumen::makeNode<Asic::OrderedTableInterface>(vault_);
  memory_ = Asic::writableSharedMemory(*vault_);
  resources_ = KelpTunnelNiLib::ResourceTableSet::make(agent_);
  group_ = agent_->makeGroupIntf(KelpEmServer::kGroupName, KelpEmServer::kAgentName,
                                 Common::tableId(0).agentAndGroupId());
}

Store::~Store() {
  group_->groupResolver()->wakeUpIs(nullptr);
  resources_ = {};
  agent_->stop();
  group_ = nullptr;
  agent_ = nullptr;
  memory_->entityDelAll();
}

std::vector<std::unique_ptr<Common::AnyTable>> Store::makeTables(unsigned units) {
  std::vector<std::unique_ptr<Common::AnyTable>> tables;
  for (std::size_t table = 0; table < Common::kTables; ++table) {
    for (unsigned unit = 0; unit < units; ++unit) {
      tables.push_back(
          Common::AnyTable::make(table, agent_, Asic::UnitId{static_cast<std::uint16_t>(unit)}));
    }
  }
  ownBell_ = std::make_unique<Bell>(memory_->folder(), "agent", Bell::Role::listener);
  chipBell_ = std::make_unique<Bell>(memory_->folder(), "chip", Bell::Role::ringer);
  // Whoever waited for the store, or for what an earlier run left in it.
  chipBell_->ring();
  return tables;
}

std::vector<Store::Removed> Store::clearAndSweep() const {
  std::vector<Removed> removed(Common::kTables);
  const auto units = [&](std::size_t table) {
    return group_->swTableSet(Common::tableId(table))->swTables().size();
  };
  const auto removes = [&](std::size_t table) {
    std::uint64_t sum = 0;
    for (const auto& unit : group_->swTableSet(Common::tableId(table))->swTables()) {
      sum += unit->stats() ? unit->stats()->entryRemoveCnt() : 0;
    }
    return sum;
  };
  // All units first: what they leave is not swept, but cleared.
  for (std::size_t table = 0; table < Common::kTables; ++table) {
    removed[table].unitsCleared = 0 - units(table);
    Common::withTable(table,
                      [&](auto tag) {
                        using T = typename decltype(tag)::Table;
                        agent_
          ->swTableIntf(
              KelpEmServer::kTextOfTable<T, "KelpEmServer::", "KelpInterface">.c_str())
          ->reconcile();
                      });
    removed[table].unitsCleared += units(table);
    removed[table].swept = 0 - removes(table);
  }
  group_->sweepAll();
  resources_.replayComplete();
  for (std::size_t table = 0; table < Common::kTables; ++table) {
    removed[table].swept += removes(table);
  }
  return removed;
}

std::vector<Common::AnyKey> Store::keysOf(const Common::AnyTable& table) const {
  std::vector<Common::AnyKey> keys;
  Common::withTable(table.table(), [&](auto tag) {
    using T = typename decltype(tag)::Table;
    const auto swTable = Lumen::staticPtrCast<KelpEmServer::KelpSwTable<T>>(
        group_->swTableSet(T::tableId)->swTable(table.unit()));
    for (const auto& entry : swTable->entries()) {
      keys.emplace_back(Common::KeyOf<T>{entry.logEntry.key});
    }
  });
  return keys;
}

void Store::ringIfPublished() const {
  if (group_->takePublished()) {
    chipBell_->ring();
  }
}

}  // namespace Agent
