#include "Asic/GroupInterface.h"

#include <algorithm>
#include <utility>

#include "Asic/Constants.h"
#include "Asic/SharedMemory.h"
#include "Brio/TraceHandle.h"
#include "BrioSharedMem/EntityManager.h"
#include "BrioSharedMem/StoreError.h"
#include "Lumen/Assert.h"
#include "Lumen/Exception.h"

namespace Asic {
namespace {

const Brio::TraceHandle& _defaultTraceHandle() {
  static const Brio::TraceHandle handle("GroupInterface", false);
  return handle;
}

constexpr const char* kClass = "GroupInterface";

}  // namespace

GroupInterface::GroupInterface(Lumen::String canonicalName,
                               const Lumen::Ptr<Vault::EntityManager>& entityManager,
                               std::uint16_t agentAndGroupId)
    : canonicalName_(std::move(canonicalName)),
      entityManager_(entityManager),
      agentAndGroupId_(agentAndGroupId),
      groupResolver_(Lumen::makeNode<GroupResolver>()) {}

GroupInterface::~GroupInterface() = default;

void GroupInterface::swTableSetIs(const Lumen::Ptr<OrderedSwTableSet>& set) {
  sets_[set->tableId()] = set;
}

bool GroupInterface::swTableSetHas(SwTableId tableId) const { return sets_.contains(tableId); }

Lumen::Ptr<OrderedSwTableSet> GroupInterface::swTableSet(SwTableId tableId) const {
  const auto found = sets_.find(tableId);
  return found == sets_.end() ? Lumen::Ptr<OrderedSwTableSet>() : found->second;
}

void GroupInterface::sweepableSwTableSetIs(const Lumen::Ptr<OrderedSwTableWithMarkSweep>& table) {
  if (std::find(sweepables_.begin(), sweepables_.end(), table) == sweepables_.end()) {
    sweepables_.push_back(table);
  }
}

void GroupInterface::sweepAll() {
  for (std::size_t i = 0; i < sweepables_.size(); ++i) {
    const Lumen::Ptr<OrderedSwTableWithMarkSweep> table = sweepables_[i];
    table->sweep();
  }
}

const GroupInterface::TableLog* GroupInterface::tableLog(SwTableId tableId) const noexcept {
  for (const TableLog& log : logs_) {
    if (log.tableId == tableId) {
      return &log;
    }
  }
  return nullptr;
}

void GroupInterface::entryLogMounted(SwTableId tableId,
                                     const Lumen::Ptr<BrioQuilt::CollectionControl>& changeLog) {
  TableLog* log = tableLog(tableId);
  if (log == nullptr) {
    log = &logs_.emplace_back();
    log->tableId = tableId;
  }
  log->changeLog = changeLog;
  log->delivered.reset();
  log->lowestNeeded = {};

  const auto manager = writableSharedMemory(*entityManager_);
  const Lumen::String path = Constants::groupNeededPath(canonicalName_, tableId);
  const auto group = manager->getMountGroup();
  BrioQuilt::MountInfo info(BrioQuilt::BrioQuiltType::collection);
  info.collectionInfoIs(BrioQuilt::CollectionInfo(kNeededCollection, kNeededCapacity, false));
  (void)group->mount(path, kNeededQuiltType, info);
  group->doClose();
  log->needed = Lumen::dynamicPtrCast<NeededQuilt>(manager->getEntity(path));
  Lumen::assertThat(log->needed != nullptr, "neededQuilt");
  // Lost dependencies can't be had again: their log records go out without them.
  if (log->needed->collectionControl()->wiped()) {
    LUMEN_TRACE(_defaultTraceHandle(), 1, kClass, "Dependencies of table {} were lost", tableId);
    log->needed->collectionControl()->clearWiped();
  }
  dropUnpublishedNeeded(*log);
}

void GroupInterface::addLogEntry(SwTableId tableId, LogVersion version,
                                 const Lumen::Ptr<const NeededEntry>& needed) {
  TableLog* log = tableLog(tableId);
  Lumen::assertThat(log != nullptr, "tableLog( tableId )");
  if (needed && !needed->empty()) {
    storeNeeded(*log, version, *needed);
  }
  log->changeLog->publishedIs(version.value);
  published_ = true;
}

bool GroupInterface::hasRoomFor(SwTableId tableId, LogVersion version) {
  TableLog* log = tableLog(tableId);
  return log == nullptr || log->needed->map().hasRoomFor(version);
}

void GroupInterface::stop() {
  sweepables_.clear();
  // A table that goes takes its queued operations along.
  const auto sets = std::exchange(sets_, {});
}

void GroupInterface::storeNeeded(TableLog& log, LogVersion version, const NeededEntry& needed) {
  NeededQuiltEntry record;
  record.version = version;
  for (const TableVersion& one : needed.versions()) {
    const bool reported = one.tableId.agentAndGroupId() == agentAndGroupId_;
    if (one.tableId == log.tableId || one.version.value == 0 || !reported) {
      continue;
    }
    Lumen::assertThat(record.count < NeededQuiltEntry::kMost, "record.count < kMost");
    record.needed[record.count].tableId = one.tableId;
    record.needed[record.count].version = one.version;
    ++record.count;
  }
  if (record.count != 0) {
    log.needed->map().recordIs(record);
    log.lowestNeeded = std::min(log.lowestNeeded, version);
  }
}

// What stands above the published version was left by a change that was cut off, or by a log that
// is lost: a new log issues those versions again, and they must not wait for what others waited
// for.
void GroupInterface::dropUnpublishedNeeded(TableLog& log) {
  auto& map = log.needed->map();
  try {
    NeededQuiltEntry record;
    Quilt::IterHint hint;
    for (bool more = map.next(LogVersion{log.changeLog->published()}, record, hint); more;
         more = map.next(record.version, record, hint)) {
      map.recordDel(record.version);
    }
  } catch (const Lumen::CorruptionDetectedException& corruption) {
    map.doCorruptionDetected(corruption.msg());
  }
}

void GroupInterface::dropNeeded(TableLog& log, LogVersion version) {
  if (log.lowestNeeded > version) {
    return;
  }
  auto& map = log.needed->map();
  log.lowestNeeded = kNoneNeeded;
  try {
    NeededQuiltEntry record;
    Quilt::IterHint hint;
    for (bool more = map.first(record, hint); more; more = map.next(record.version, record, hint)) {
      if (record.version > version) {
        log.lowestNeeded = record.version;
        break;
      }
      map.recordDel(record.version);
    }
  } catch (const Lumen::CorruptionDetectedException& corruption) {
    map.doCorruptionDetected(corruption.msg());
    log.lowestNeeded = {};
  }
}

Lumen::Ptr<StatusQuilt> GroupInterface::statusQuilt() {
  if (!statusQuilt_ || statusQuilt_->replaced()) {
    try {
      statusQuilt_ = Lumen::dynamicPtrCast<StatusQuilt>(
          writableSharedMemory(*entityManager_)
              ->openReader(Constants::groupStatusPath(canonicalName_), kStatusQuiltType));
      otherLayoutTold_ = false;
    } catch (const BrioSharedMem::OtherLayoutError& error) {
      // A hardware side that does not fit this agent: nothing it reports can be read.
      if (!std::exchange(otherLayoutTold_, true)) {
        LUMEN_TRACE(_defaultTraceHandle(), 1, kClass, "{}", error.what());
      }
      statusQuilt_ = nullptr;
    } catch (const BrioSharedMem::StoreError& error) {
      // The hardware side has not made it yet, or is making it anew.
      LUMEN_TRACE(_defaultTraceHandle(), 3, kClass, "No status collection: {}", error.what());
      statusQuilt_ = nullptr;
    }
  }
  return statusQuilt_;
}

std::optional<LogVersion> GroupInterface::statusVersion(SwTableId tableId) {
  TableLog* log = tableLog(tableId);
  const Lumen::Ptr<StatusQuilt> status = log == nullptr ? nullptr : statusQuilt();
  return status ? rowOf(*status, *log) : std::nullopt;
}

std::optional<LogVersion> GroupInterface::rowOf(StatusQuilt& status, TableLog& log) {
  try {
    bool found = false;
    const StatusQuiltEntry& row = status.map().find(log.tableId, found);
    if (!found || row.incarnation != log.changeLog->incarnation()) {
      return std::nullopt;
    }
    const LogVersion published{log.changeLog->published()};
    if (row.version <= published) {
      return row.version;
    }
    // Nobody can have taken in what is not published. Such a row counts as what was published when
    // it was first seen, and does not go on counting with what comes later.
    if (log.overreach != row.version) {
      log.overreach = row.version;
      log.overreachCounts = published;
    }
    return log.overreachCounts;
  } catch (const Lumen::CorruptionDetectedException& corruption) {
    status.map().doCorruptionDetected(corruption.msg());
    return std::nullopt;
  }
}

std::size_t GroupInterface::pollStatus() {
  // A response handler may end the agent, and may drop the status collection.
  const Lumen::Ptr<GroupInterface> self(this);
  const Lumen::Ptr<StatusQuilt> status = statusQuilt();
  if (!status) {
    return 0;
  }
  std::size_t news = 0;
  // By index: a response handler may make another table's interface.
  for (std::size_t i = 0; i < logs_.size(); ++i) {
    const SwTableId tableId = logs_[i].tableId;
    const std::optional<LogVersion> version = rowOf(*status, logs_[i]);
    if (!version || version == logs_[i].delivered) {
      continue;
    }
    logs_[i].delivered = version;
    dropNeeded(logs_[i], *version);
    if (const Lumen::Ptr<OrderedSwTableSet> set = swTableSet(tableId)) {
      set->tableStatusVersion(*version);
    }
    ++news;
  }
  if (news != 0) {
    groupResolver_->maybeUpdateSuspend();
  }
  return news;
}

}  // namespace Asic
