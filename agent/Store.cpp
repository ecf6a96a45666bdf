#include "agent/Store.h"

#include "Asic/Constants.h"
#include "Asic/GenId.h"
#include "Asic/SharedMemory.h"
#include "KelpEmServer/MountQuilt.h"
#include "KelpEmServer/TableCatalogue.h"

namespace Agent {

using BrioSharedMem::Bell;

Store::Store(const std::string& name, const std::string& root)
    : vault_(Lumen::makeNode<Vault::EntityManager>(name, false, root)) {
  vault_->entityIs<Asic::GenId>(KelpEmServer::relaunchPath(KelpEmServer::kAgentName));
  agent_ = Lumen::makeNode<Asic::OrderedTableInterface>(vault_);
  // Without a sweep nothing may wait for one.
  agent_->skipMarkOnRestoreIs(true);
  memory_ = Asic::writableSharedMemory(*vault_);
  group_ = agent_->makeGroupIntf(KelpEmServer::kGroupName, KelpEmServer::kAgentName,
                                 Common::tableId(0).agentAndGroupId());
}

Store::~Store() {
  group_->groupResolver()->wakeUpIs(nullptr);
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

void Store::ringIfPublished() const {
  if (group_->takePublished()) {
    chipBell_->ring();
  }
}

}  // namespace Agent
