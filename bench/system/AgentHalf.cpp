#include "AgentHalf.h"

#include <poll.h>

#include <utility>

#include "Asic/Constants.h"
#include "Asic/GenId.h"
#include "Asic/GroupQuilts.h"
#include "Asic/SharedMemory.h"
#include "BrioQuilt/MountInfo.h"
#include "KelpTunnelNiLib/ResourceTableSet.h"

AgentHalf::AgentHalf(const std::string& name, const std::string& root, unsigned units) {
  vault_ = Lumen::makeNode<Vault::EntityManager>(name, false, root);
  vault_->entityIs<Asic::GenId>(Lumen::String("hardware/tinsel/agent/relaunch/config/") +
                                KelpEmServer::kAgentName);
  agent_ = Lumen::makeNode<Asic::OrderedTableInterface>(vault_);
  agent_->skipMarkOnRestoreIs(true);
  (void)KelpTunnelNiLib::ResourceTableSet::make(agent_);
  const auto intf = KelpEmServer::KelpInterface<T>::getIntf(agent_);
  for (unsigned unit = 0; unit < units; ++unit) {
    tables_.push_back(
        intf->makeSwTable(Asic::UnitId{static_cast<std::uint16_t>(unit)}, nullptr, false));
  }
  group_ = agent_->groupIntfColl()->groupIntf(
      Asic::Constants::canonicalizeGroupName(KelpEmServer::kAgentName, KelpEmServer::kGroupName));
  const Lumen::String folder = Asic::writableSharedMemory(*vault_)->folder();
  bell_.emplace(folder, "agent", BrioSharedMem::Bell::Role::listener);
  chipBell_.emplace(folder, "chip", BrioSharedMem::Bell::Role::ringer);
  handler_ = [this](const Lumen::Ptr<const Asic::OrderedSwTable::EntryHandle>&) { ++ended_; };
}

AgentHalf::~AgentHalf() {
  tables_.clear();
  group_ = nullptr;
  agent_->stop();
  Asic::writableSharedMemory(*vault_)->entityDelAll();
}

void AgentHalf::writeNext() {
  const std::uint64_t number = written_++;
  Table& table = *tables_[number % tables_.size()];
  const std::uint64_t round = number / tables_.size();
  T::Entry entry;
  entry.logEntry.key.port = static_cast<std::uint16_t>(round % kKeys / 4000);
  entry.logEntry.key.vlan = static_cast<std::uint16_t>(1 + round % kKeys % 4000);
  entry.rsrcKeys.inLifIdxKey.attachmentCircuit = static_cast<std::uint32_t>(1 + number % kCircuits);
  static_cast<void>(
      table.entryWriteWithResponseHandler(entry.logEntry.key, entry, nullptr, handler_));
}

void AgentHalf::pass() {
  group().groupResolver()->runPass();
  if (!group().takePublished()) {
    return;
  }
  if (!reportsItself_) {
    chipBell_->ring();
    return;
  }
  if (!ownStatus_) {
    const auto memory = Asic::writableSharedMemory(*vault_);
    const Lumen::String path = Asic::Constants::groupStatusPath(group().canonicalName());
    const auto mounts = memory->getMountGroup();
    BrioQuilt::MountInfo info(BrioQuilt::BrioQuiltType::collection);
    info.collectionInfoIs(
        BrioQuilt::CollectionInfo(Asic::kStatusCollection, Asic::kStatusCapacity, false));
    static_cast<void>(mounts->mount(path, Asic::kStatusQuiltType, info));
    mounts->doClose();
    ownStatus_ = Lumen::dynamicPtrCast<Asic::StatusQuilt>(memory->getEntity(path));
  }
  const auto log = KelpEmServer::KelpInterface<T>::getIntf(agent_)
                       ->entryLog()
                       ->tableEntryLog()
                       ->collectionControl();
  Asic::StatusQuiltEntry row;
  row.tableId = T::tableId;
  row.version = Asic::LogVersion{log->published()};
  row.incarnation = log->incarnation();
  ownStatus_->map().recordIs(row);
}

void AgentHalf::poll() { static_cast<void>(group().pollStatus()); }

void AgentHalf::sleep() {
  const std::uint64_t before = ended_;
  bell_->arm();
  poll();
  if (ended_ == before) {
    const auto start = Clock::now();
    pollfd wait{bell_->fd(), POLLIN, 0};
    static_cast<void>(::poll(&wait, 1, 1000));
    waited_ += static_cast<std::uint64_t>((Clock::now() - start) / std::chrono::nanoseconds(1));
  }
  bell_->disarm();
  poll();
}

void AgentHalf::write(std::uint64_t count, std::uint64_t window) {
  constexpr std::uint64_t kPortion = 256;
  const std::uint64_t last = written_ + count;
  while (ended_ < last) {
    const std::uint64_t room = window - (written_ - ended_);
    const std::uint64_t portion = std::min({kPortion, room, last - written_});
    for (std::uint64_t i = 0; i < portion; ++i) {
      writeNext();
    }
    if (portion != 0) {
      pass();
      poll();
    } else {
      sleep();
    }
  }
}

std::uint64_t AgentHalf::writeOne() {
  const auto start = Clock::now();
  writeNext();
  pass();
  while (ended_ < written_) {
    sleep();
  }
  return static_cast<std::uint64_t>((Clock::now() - start) / std::chrono::nanoseconds(1));
}
