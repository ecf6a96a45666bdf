#pragma once

// How a mount finishes a change that a dying process cut off, so that the hardware side neither
// misses it nor sees one version twice with different content.
//
// A change announces its version A in the header of the change log before it stores anything; it
// ends by saving A in the scratchpad word, and by publishing it. So:
//  - announced is one above saved: the change was cut off.
//      The log holds a record of A: only the last steps are missing.
//      No configuration record, of any unit, is above the saved version: nothing had happened. A is
//      announced again by the next change.
//      One record of version A: its log record is written under that version.
//      Several records of version A (a table delete): each is stamped with a fresh version and
//      logged as what it is. A record above A that the log does not hold: this recovery was itself
//      cut off. Its log record is written.
//    The saved version follows last, so that a recovery which dies is done again.
//  - published is below saved: the last step is missing, and is taken. What the change depended on
//    may be lost; it waits for everything that all tables had published.
//
// A log that came back wiped starts over with all words 0, and nothing of this applies.

#include <algorithm>
#include <vector>

#include "BrioQuilt/QuiltEntity.h"
#include "KelpEmServer/KelpEntryLogImpl.h"

namespace KelpEmServer {

template <TableSpec T>
void KelpEntryLog<T>::finishCutOffChange() {
  const auto& control = this->changeLogControl();
  const Asic::LogVersion saved{control->scratchpad()};
  std::vector<Asic::LogVersion> unpublished;
  if (control->announced() == saved.value + 1) {
    unpublished = completeChange(Asic::LogVersion{control->announced()});
    if (!unpublished.empty()) {
      control->scratchpadIs(unpublished.back().value);
    }
  }
  if (unpublished.empty() && control->published() < saved.value) {
    unpublished.push_back(saved);
  }
  if (unpublished.empty()) {
    return;
  }
  const Lumen::Ptr<const Asic::NeededEntry> needed = everythingPublished();
  for (const Asic::LogVersion version : unpublished) {
    LUMEN_TRACE(entryLogTraceHandle<T>(), 2, className(),
                " Finished a change that was cut off: version: {}", version);
    this->groupInterface()->addLogEntry(this->tableId(), version, needed);
  }
}

// Gives the versions of the log records that make the change whole, ascending; none if nothing of
// it had been stored.
template <TableSpec T>
std::vector<Asic::LogVersion> KelpEntryLog<T>::completeChange(Asic::LogVersion announced) {
  auto& log = tableEntryLog_->entryLogConfig();
  const auto logHas = [&](Asic::LogVersion version) {
    try {
      bool found = false;
      (void)log.find(version, found);
      return found;
    } catch (const Lumen::CorruptionDetectedException& corruption) {
      log.doCorruptionDetected(corruption.msg());
      return false;
    }
  };

  if (logHas(announced)) {
    return {announced};
  }
  struct Touched {
    Asic::UnitId unitId;
    Lumen::Ptr<ConfigQuilt> quilt;
    ConfigRecord record;
  };
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
      if (record.version >= announced) {
        touched.push_back({*unitId, quilt, record});
      }
    });
  }

  std::vector<Asic::LogVersion> versions;
  Asic::LogVersion highest = announced;
  for (const Touched& one : touched) {
    highest = std::max(highest, one.record.version);
  }
  const bool several =
      std::count_if(touched.begin(), touched.end(),
                    [&](const Touched& one) { return one.record.version == announced; }) > 1 ||
      highest > announced;
  for (Touched& one : touched) {
    if (one.record.version == announced && several) {
      one.record.version = Asic::LogVersion{++highest.value};
      one.quilt->swTableEntriesIs(one.record);
    }
    if (!logHas(one.record.version)) {
      tableEntryLog_->entryLogConfigIs(
          LogRecord(one.record.version, one.record.entry.logEntry, one.unitId,
                    one.record.isDeleted != 0 ? LogRecord::kEntryDeleted : std::uint8_t{0}));
    }
    versions.push_back(one.record.version);
  }
  std::sort(versions.begin(), versions.end());
  versions.erase(std::unique(versions.begin(), versions.end()), versions.end());
  return versions;
}

// All tables of the library, each at the version that it has published.
template <TableSpec T>
Lumen::Ptr<Asic::NeededEntry> KelpEntryLog<T>::everythingPublished() const {
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
