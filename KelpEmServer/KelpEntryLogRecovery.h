#pragma once

// How a mount finishes a change that a dying process cut off, so that the hardware side neither
// misses it nor sees one version twice with different content.
//
// A change announces its version A in the header of the change log before it stores anything; it
// ends by saving A in the scratchpad word, and by publishing it. So:
//  - announced is one above saved: the change was cut off.
//      The log holds a record of A: only the last steps are missing.
//      No configuration record of any unit has version A: nothing had happened. A is announced
//      again by the next change. One record of version A: its log record is written under that
//      version. Several records of version A (a table delete): each is stamped with a fresh version
//      and logged as what it is, one after the other. So a recovery that was itself cut off has
//      left log records above A, in a row, and at most one configuration record behind the last of
//      them; it is taken up there.
//    The saved version follows last, so that a recovery which dies is done again.
//  - published is below saved: the last step is missing, for all versions in between, and is taken.
//    What the change depended on may be lost; it waits for everything that all tables had
//    published.
//  - published is above saved: no process has done that. The saved word is damaged, and follows, so
//    that no version is given out twice.
//
// A log that came back wiped and empty has all words 0, and nothing of this applies. One that was
// taken over record by record keeps its words, and is finished like any other.

#include <algorithm>
#include <limits>
#include <vector>

#include "BrioQuilt/QuiltEntity.h"
#include "KelpEmServer/KelpEntryLogImpl.h"

namespace KelpEmServer {

template <TableSpec T>
void KelpEntryLog<T>::finishCutOffChange() {
  const auto& control = this->changeLogControl();
  if (control->published() > control->scratchpad()) {
    LUMEN_TRACE(entryLogTraceHandle<T>(), 1, className(),
                " The saved version {} is behind the published one: {}", control->scratchpad(),
                control->published());
    control->scratchpadIs(control->published());
  }
  if (control->announced() == control->scratchpad() + 1) {
    const std::vector<Asic::LogVersion> completed =
        completeChange(Asic::LogVersion{control->announced()});
    if (!completed.empty()) {
      control->scratchpadIs(completed.back().value);
    }
  }
  const Asic::LogVersion saved{control->scratchpad()};
  if (control->published() >= saved.value) {
    return;
  }
  const Lumen::Ptr<const Asic::NeededEntry> needed = everythingPublished();
  std::vector<Asic::LogVersion> unpublished =
      versionsInLog(Asic::LogVersion{control->published()}, saved);
  if (unpublished.empty() || unpublished.back() != saved) {
    unpublished.push_back(saved);
  }
  for (const Asic::LogVersion version : unpublished) {
    LUMEN_TRACE(entryLogTraceHandle<T>(), 2, className(),
                " Finished a change that was cut off: version: {}", version);
    this->groupInterface()->addLogEntry(this->tableId(), version, needed);
  }
}

// The versions above `after` and up to `last` of which the log has a record, ascending.
template <TableSpec T>
std::vector<Asic::LogVersion> KelpEntryLog<T>::versionsInLog(Asic::LogVersion after,
                                                             Asic::LogVersion last) {
  auto& log = tableEntryLog_->entryLogConfig();
  std::vector<Asic::LogVersion> versions;
  try {
    LogRecord record;
    Quilt::IterHint hint;
    for (bool more = log.next(after, record, hint); more && record.version <= last;
         more = log.next(record.version, record, hint)) {
      versions.push_back(record.version);
    }
  } catch (const Lumen::CorruptionDetectedException& corruption) {
    log.doCorruptionDetected(corruption.msg());
  }
  return versions;
}

// Gives the versions of the log records that make the change whole, ascending; none if nothing of
// it had been stored.
template <TableSpec T>
std::vector<Asic::LogVersion> KelpEntryLog<T>::completeChange(Asic::LogVersion announced) {
  const Asic::LogVersion before{announced.value - 1};
  std::vector<Asic::LogVersion> versions =
      versionsInLog(before, Asic::LogVersion{std::numeric_limits<std::uint64_t>::max()});
  if (!versions.empty() && versions.front() == announced) {
    return {announced};
  }
  struct Touched {
    Asic::UnitId unitId;
    Lumen::Ptr<ConfigQuilt> quilt;
    ConfigRecord record;
  };
  // An earlier recovery may have stamped one record more than it logged.
  const Asic::LogVersion behind{(versions.empty() ? announced : versions.back()).value + 1};
  std::vector<Touched> touched;
  const auto manager = Asic::writableSharedMemory(*this->entityManager());
  const auto found = manager->findEntities(KelpConstants<T>::configQuiltPathBase(),
                                           BrioSharedMem::BrioSharedMemType::quilt);
  for (const Lumen::String& path : found->paths()) {
    const auto unitId = Asic::Constants::getUnitIdFromConfigPath(path);
    if (!unitId || path != KelpConstants<T>::configQuiltPath(*unitId)) {
      continue;
    }
    const auto quilt = mountQuilt<ConfigQuilt>(
        manager, kTextOfTable<T, "KelpTunnelNiLib::", "ConfigQuilt">.c_str(), path,
        [](BrioQuilt::MountInfo& info) { declareConfig(info); });
    Lumen::assertThat(quilt != nullptr, "cfgQuilt");
    forEachRecord(*quilt, [&](const ConfigRecord& record) {
      // Versions of a log that started over may lie far above.
      if (record.version == announced || record.version == behind) {
        touched.push_back({*unitId, quilt, record});
      }
    });
  }

  Asic::LogVersion highest = announced;
  for (const Touched& one : touched) {
    highest = std::max(highest, one.record.version);
  }
  if (!versions.empty()) {
    highest = std::max(highest, versions.back());
  }
  const bool several =
      std::count_if(touched.begin(), touched.end(),
                    [&](const Touched& one) { return one.record.version == announced; }) > 1 ||
      highest > announced;
  // What is stamped already comes first, so that the log has no gap if this ends on the way.
  std::partition(touched.begin(), touched.end(),
                 [&](const Touched& one) { return one.record.version != announced; });
  auto& log = tableEntryLog_->entryLogConfig();
  for (Touched& one : touched) {
    const bool stamp = one.record.version == announced && several;
    const Asic::LogVersion version =
        stamp ? Asic::LogVersion{highest.value + 1} : one.record.version;
    auto& config = one.quilt->swTableEntries();
    if (!log.hasRoomFor(version) || !config.hasRoomFor(one.record.quiltKey())) {
      throw BrioSharedMem::StoreError(fmt::format(
          "{}: no room to finish the change at version {}, which was cut off; make room "
          "in the file system of the store, then start again",
          log.path(), announced));
    }
    if (stamp) {
      highest = version;
      one.record.version = version;
      config.recordIs(one.record);
    }
    tableEntryLog_->entryLogConfigIs(
        LogRecord(one.record.version, one.record.entry.logEntry, one.unitId,
                  one.record.isDeleted != 0 ? LogRecord::kEntryDeleted : std::uint8_t{0}));
    versions.push_back(one.record.version);
  }
  std::sort(versions.begin(), versions.end());
  versions.erase(std::unique(versions.begin(), versions.end()), versions.end());
  return versions;
}

// All tables of the library, each at the version that it has published.
template <TableSpec T>
Lumen::Ptr<Asic::NeededEntry> KelpEntryLog<T>::everythingPublished() const {
  static_assert(AllTables::size() <= Asic::NeededQuiltEntry::kMost + 1,
                "a record of dependencies has room for every other table");
  auto needed = Lumen::makeNode<Asic::NeededEntry>();
  const auto manager = Asic::writableSharedMemory(*this->entityManager());
  AllTables::forEach([&](auto tag) {
    using Other = typename decltype(tag)::Table;
    try {
      const auto log = Lumen::dynamicPtrCast<BrioQuilt::QuiltEntity>(
          manager->openReader(KelpConstants<Other>::tableEntryLogQuiltPath(),
                              kTextOfTable<Other, "KelpTunnelNiLib::", "EntryLogQuilt">.c_str()));
      if (log) {
        needed->add({Other::tableId, Asic::LogVersion{log->collectionControl()->published()}});
      }
    } catch (const BrioSharedMem::StoreError&) {
      // A table that was never there has published nothing.
    }
  });
  return needed;
}

}  // namespace KelpEmServer
