#pragma once

// The bodies of KelpEntryLog. Included by the units of a table that instantiate it or call it
// inline.

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "Brio/Log.h"
#include "Brio/SassertHelper.h"
#include "Brio/TraceHandle.h"
#include "KelpEmServer/KelpEntryLog.h"
#include "KelpEmServer/LogMessages.h"
#include "KelpEmServer/MountQuilt.h"
#include "Lumen/Assert.h"
#include "Lumen/Exception.h"
#include "Lumen/Trace.h"

namespace KelpEmServer {

template <TableSpec T>
const Brio::TraceHandle& entryLogTraceHandle() {
  static const Brio::TraceHandle handle(kTableText<T, "KelpEntryLog">.c_str(), false);
  return handle;
}

// Each table's own, made when the unit is loaded.
template <TableSpec T>
EntryLogHandles entryLogHandles;

template <TableSpec T>
void reportWiped(const char* item) {
  Brio::log(entryLogHandles<T>.hwAbstractionError,
            fmt::format("{}::{}", item, kTableText<T, "Kelp">.view()));
}

// --- mounting

template <TableSpec T>
KelpEntryLog<T>::KelpEntryLog(Asic::SwTableId tableId,
                              const Lumen::Ptr<Vault::EntityManager>& entityManager,
                              const Lumen::Ptr<Asic::GroupInterface>& groupInterface,
                              const Lumen::String& agentName)
    : Asic::EntryLogBase(tableId, entityManager, groupInterface, agentName) {
  handleInitialized();
}

template <TableSpec T>
void KelpEntryLog<T>::handleInitialized() {
  // The numbers of attributes are known outside.
  static_assert(Brio::fieldId<KelpEntryLog>("tableEntryLog") == Lumen::FieldId{258} &&
                Brio::fieldId<KelpEntryLog>("tableConfigQuilt") == Lumen::FieldId{259} &&
                Brio::fieldId<KelpEntryLog>("entryIs") == Lumen::FieldId{260} &&
                Brio::fieldId<KelpEntryLog>("entryDel") == Lumen::FieldId{261} &&
                Brio::fieldId<KelpEntryLog>("tableDel") == Lumen::FieldId{262} &&
                Brio::fieldId<KelpEntryLog>("entry") == Lumen::FieldId{263} &&
                Brio::fieldId<KelpEntryLog>("entryHas") == Lumen::FieldId{264} &&
                Brio::fieldId<KelpEntryLog>("entryRsrcKeys") == Lumen::FieldId{265} &&
                Brio::fieldId<KelpEntryLog>("entryLogVersion") == Lumen::FieldId{266} &&
                Brio::fieldId<KelpEntryLog>("entrys") == Lumen::FieldId{267} &&
                Brio::fieldId<KelpEntryLog>("entrysInDeletion") == Lumen::FieldId{268} &&
                Brio::fieldId<KelpEntryLog>("cleanupEntryLog") == Lumen::FieldId{269} &&
                Brio::fieldId<KelpEntryLog>("mountQuiltChangeLog") == Lumen::FieldId{270} &&
                Brio::fieldId<KelpEntryLog>("mountQuiltConfig") == Lumen::FieldId{271} &&
                Brio::fieldId<KelpEntryLog>("handleInitialized") == Lumen::FieldId{272});
  LUMEN_TRACE(entryLogTraceHandle<T>(), 8, className(), "");
  mountQuiltChangeLog();
}

template <TableSpec T>
void KelpEntryLog<T>::mountQuiltChangeLog() {
  LUMEN_TRACE(entryLogTraceHandle<T>(), 8, className(), "");
  const Lumen::String path = KelpConstants<T>::tableEntryLogQuiltPath();
  tableEntryLog_ = checkAndwriteMountQuilt<EntryLogQuilt>(
      this->entityManager(), kTextOfTable<T, "KelpTunnelNiLib::", "EntryLogQuilt">.c_str(), path,
      this->agentName(),
      [](BrioQuilt::MountInfo& info) {
        info.collectionInfoIs(
            BrioQuilt::CollectionInfo("entryLogConfig", kChangeLogCapacity, false));
      },
      [](Lumen::Ptr<EntryLogQuilt>& quilt) { return quilt->collectionControl(); },
      [] { reportWiped<T>("entryLog"); });
  this->changeLogControlIs(tableEntryLog_->collectionControl());
  this->groupInterface()->entryLogMounted(this->tableId(), this->changeLogControl());
  finishCutOffChange();
  this->tableVersionIs(Asic::LogVersion{this->changeLogControl()->scratchpad()});
  LUMEN_TRACE(entryLogTraceHandle<T>(), 2, className(), " Mounted entryLog: {}, tableVersion: {}",
              path, this->tableVersion());
}

template <TableSpec T>
void KelpEntryLog<T>::declareConfig(BrioQuilt::MountInfo& info) {
  info.collectionInfoIs(BrioQuilt::CollectionInfo("swTableEntries", kConfigCapacity, false));
}

template <TableSpec T>
void KelpEntryLog<T>::mountQuiltConfig(Asic::UnitId unitId, Asic::LogVersion logVersion) {
  LUMEN_TRACE(entryLogTraceHandle<T>(), 8, className(), " unitId:{}, logVersion: {}", unitId,
              logVersion);
  const Lumen::String path = KelpConstants<T>::configQuiltPath(unitId);
  const Lumen::Ptr<ConfigQuilt> cfgQuilt = checkAndwriteMountQuilt<ConfigQuilt>(
      this->entityManager(), kTextOfTable<T, "KelpTunnelNiLib::", "ConfigQuilt">.c_str(), path,
      this->agentName(), [](BrioQuilt::MountInfo& info) { declareConfig(info); },
      [](Lumen::Ptr<ConfigQuilt>& quilt) { return quilt->collectionControl(); },
      [] { reportWiped<T>("entryCfg"); });
  Lumen::assertThat(cfgQuilt != nullptr, "cfgQuilt");
  tableConfigQuiltIs(unitId, cfgQuilt);
  LUMEN_TRACE(entryLogTraceHandle<T>(), 2, className(), " Mounted config for unitId: {} at {}",
              unitId, path);
  if (logVersion.value == 0 || cfgQuilt->swTableEntries().marked() == 0) {
    return;
  }
  forEachRecord(*cfgQuilt, [&](const ConfigRecord& record) {
    if (record.isDeleted != 0 && record.version <= logVersion) {
      cfgQuilt->swTableEntriesDel(record.quiltKey());
    }
  });
}

template <TableSpec T>
Lumen::Ptr<typename T::ConfigQuilt> KelpEntryLog<T>::tableConfigQuilt(Asic::UnitId unitId) const {
  const auto* node = tableConfigQuilt_[unitId];
  return node == nullptr ? nullptr : node->value();
}

template <TableSpec T>
void KelpEntryLog<T>::tableConfigQuiltIs(Asic::UnitId unitId,
                                         const Lumen::Ptr<ConfigQuilt>& configQuilt) {
  lastUnitQuilt_ = nullptr;
  if (!configQuilt) {
    tableConfigQuilt_.del(unitId);
    return;
  }
  const auto hashed = tableConfigQuilt_.hashed(unitId);
  if (auto* node = tableConfigQuilt_.find(hashed)) {
    node->value() = configQuilt;
  } else {
    tableConfigQuilt_.newMember(hashed, HN_TableConfigQuilt(unitId, configQuilt));
  }
}

template <TableSpec T>
Lumen::Ptr<typename T::ConfigQuilt> KelpEntryLog<T>::tableConfigQuiltDel(Asic::UnitId unitId) {
  lastUnitQuilt_ = nullptr;
  Lumen::Ptr<ConfigQuilt> old = tableConfigQuilt(unitId);
  tableConfigQuilt_.del(unitId);
  return old;
}

template <TableSpec T>
void KelpEntryLog<T>::tableConfigQuiltDelAll() {
  lastUnitQuilt_ = nullptr;
  tableConfigQuilt_.delAll();
}

// --- the collections

template <TableSpec T>
typename T::ConfigQuilt* KelpEntryLog<T>::unitQuilt(Asic::UnitId unitId) const {
  if (lastUnitQuilt_ == nullptr || lastUnit_ != unitId) {
    const auto* node = tableConfigQuilt_[unitId];
    lastUnit_ = unitId;
    lastUnitQuilt_ = node == nullptr ? nullptr : node->value().get();
  }
  return lastUnitQuilt_;
}

template <TableSpec T>
const typename KelpEntryLog<T>::ConfigRecord& KelpEntryLog<T>::findRecord(ConfigQuilt& configQuilt,
                                                                          const Key& key,
                                                                          bool& found) {
  try {
    return configQuilt.swTableEntries().find(key, found);
  } catch (const Lumen::CorruptionDetectedException& corruption) {
    configQuilt.swTableEntries().doCorruptionDetected(corruption.msg());
    found = false;
    return Quilt::AllocBase<ConfigRecord>::defaultRecord();
  }
}

template <TableSpec T>
const typename KelpEntryLog<T>::ConfigRecord& KelpEntryLog<T>::findRecord(ConfigQuilt& configQuilt,
                                                                          const Key& key) {
  bool found = false;
  return findRecord(configQuilt, key, found);
}

template <TableSpec T>
template <class Visit>
void KelpEntryLog<T>::forEachRecord(ConfigQuilt& configQuilt, Visit&& visit) {
  auto& records = configQuilt.swTableEntries();
  ConfigRecord record;
  Quilt::IterHint hint;
  const auto step = [&](bool first) {
    try {
      return first ? records.first(record, hint) : records.next(record.quiltKey(), record, hint);
    } catch (const Lumen::CorruptionDetectedException& corruption) {
      records.doCorruptionDetected(corruption.msg());
      return false;
    }
  };
  for (bool more = step(true); more; more = step(false)) {
    visit(std::as_const(record));
  }
}

template <TableSpec T>
bool KelpEntryLog<T>::hasRoomInLog() {
  const Asic::LogVersion next{this->tableVersion().value + 1};
  auto& log = tableEntryLog_->entryLogConfig();
  return log.size() < kChangeLogCapacity && log.hasRoomFor(next) &&
         this->groupInterface()->hasRoomFor(this->tableId(), next);
}

template <TableSpec T>
bool KelpEntryLog<T>::hasRoomFor(const Key& key, Asic::UnitId unitId) {
  ConfigQuilt* configQuilt = unitQuilt(unitId);
  return configQuilt == nullptr || configQuilt->swTableEntries().hasRoomFor(key);
}

// --- writing

template <TableSpec T>
Asic::LogVersion KelpEntryLog<T>::identicalVersion(ConfigQuilt& configQuilt,
                                                   const LogEntry& logEntry,
                                                   const ResourceKeys& rsrcKeys,
                                                   Asic::SwTableStats& stats) const {
  const ConfigRecord& record = findRecord(configQuilt, logEntry.key);
  if (record.isEq(Quilt::AllocBase<ConfigRecord>::defaultRecord()) || record.isDeleted != 0) {
    return {};
  }
  // A version of a log that was lost is one that no report will ever cover.
  if (record.version > this->tableVersion()) [[unlikely]] {
    return {};
  }
  if (record.entry.logEntry.isEq(logEntry) && record.entry.rsrcKeys.isEq(rsrcKeys)) {
    stats.suppressedWriteCntInc(1);
    LUMEN_TRACE(entryLogTraceHandle<T>(), 3, className(), "Suppressing identical write for key: {}",
                logEntry.key);
    return record.version;
  }
  LUMEN_TRACE(entryLogTraceHandle<T>(), 3, className(),
              "Not Suppressing write because entry or resource key is different  for key: {}",
              logEntry.key);
  stats.suppressCheckDiffCntInc(1);
  return {};
}

template <TableSpec T>
void KelpEntryLog<T>::finishChange(const LogRecord& record,
                                   const Lumen::Ptr<const Asic::NeededEntry>& neededEntry) {
  tableEntryLog_->entryLogConfigIs(record);
  this->changeLogControl()->scratchpadIs(record.version.value);
  this->groupInterface()->addLogEntry(this->tableId(), record.version, neededEntry);
}

template <TableSpec T>
Asic::LogVersion KelpEntryLog<T>::entryIs(const LogEntry& logEntry, const ResourceKeys& rsrcKeys,
                                          const Lumen::Ptr<const Asic::NeededEntry>& neededEntry,
                                          Asic::UnitId unitId,
                                          const Lumen::Ptr<Asic::SwTableStats>& stats,
                                          bool suppressIdenticalWrites) {
  ConfigQuilt* configQuilt = unitQuilt(unitId);
  if (configQuilt == nullptr) [[unlikely]] {
    {
      Brio::SassertHelper sentence("tableConfigQuiltHas( unitId )");
      sentence.stream() << "Config quilt for unitId:" << unitId.value << " is not created yet!";
    }
    Brio::sassertFailed("tableConfigQuiltHas( unitId )");
  }
  if (suppressIdenticalWrites) {
    const Asic::LogVersion identical = identicalVersion(*configQuilt, logEntry, rsrcKeys, *stats);
    if (identical.value != 0) {
      return identical;
    }
  }
  const Asic::LogVersion version = this->tableVersionInc(Asic::LogVersion{1});
  LUMEN_TRACE(entryLogTraceHandle<T>(), 8, className(),
              " logEntry: {} neededEntry: {} version: {} unitId: {} suppressIdenticalWrites: {}",
              logEntry, neededEntry, version, unitId, suppressIdenticalWrites);
  ConfigRecord record;
  record.entry.rsrcKeys = rsrcKeys;
  record.entry.logEntry = logEntry;
  record.version = version;
  configQuilt->swTableEntriesIs(record);
  finishChange(LogRecord(version, logEntry, unitId, 0), neededEntry);
  return version;
}

template <TableSpec T>
Asic::LogVersion KelpEntryLog<T>::entryDel(const Key& key,
                                           const Lumen::Ptr<const Asic::NeededEntry>& neededEntry,
                                           Asic::UnitId unitId) {
  LUMEN_TRACE(entryLogTraceHandle<T>(), 8, className(), " key:{} neededEntry: {} unitId: {}", key,
              neededEntry, unitId);
  ConfigQuilt* configQuilt = unitQuilt(unitId);
  bool found = false;
  ConfigRecord record = findRecord(*configQuilt, key, found);
  if (!found) {
    LUMEN_TRACE(entryLogTraceHandle<T>(), 3, className(),
                " key: {} entry does not exist. So ignoring delete", key);
    return {};
  }
  record.version = this->tableVersionInc(Asic::LogVersion{1});
  record.isDeleted = 1;
  configQuilt->swTableEntriesIs(record);
  finishChange(LogRecord(record.version, record.entry.logEntry, unitId, LogRecord::kEntryDeleted),
               neededEntry);
  return record.version;
}

template <TableSpec T>
Asic::LogVersion KelpEntryLog<T>::tableDel(const Lumen::Ptr<const Asic::NeededEntry>& neededEntry,
                                           Asic::UnitId unitId) {
  LUMEN_TRACE(entryLogTraceHandle<T>(), 8, className(), " neededEntry:{}, unitId: {}", neededEntry,
              unitId);
  const Asic::LogVersion version = this->tableVersionInc(Asic::LogVersion{1});
  ConfigQuilt* configQuilt = unitQuilt(unitId);
  forEachRecord(*configQuilt, [&](const ConfigRecord& record) {
    if (record.isDeleted == 0) {
      configQuilt->swTableEntriesIs(ConfigRecord(record.entry, version, true));
    }
  });
  finishChange(LogRecord(version, LogEntry(), unitId, LogRecord::kTableDeleted), neededEntry);
  return version;
}

// --- reading

template <TableSpec T>
void KelpEntryLog<T>::checkUnit(Asic::UnitId unitId) const {
  if (unitQuilt(unitId) == nullptr) {
    throw Lumen::Exception(
        fmt::format("no unit {} of {}: name one of tableConfigQuilt", unitId, T::name.view()));
  }
}

template <TableSpec T>
typename T::Entry::LogEntry KelpEntryLog<T>::entry(const Key& key, Asic::UnitId unitId) const {
  LUMEN_TRACE(entryLogTraceHandle<T>(), 8, className(), " key: {} unitId:{}", key, unitId);
  const ConfigRecord& record = findRecord(*unitQuilt(unitId), key);
  return record.isDeleted != 0 ? LogEntry() : record.entry.logEntry;
}

template <TableSpec T>
bool KelpEntryLog<T>::entryHas(const Key& key, Asic::UnitId unitId) const {
  LUMEN_TRACE(entryLogTraceHandle<T>(), 8, className(), " key: {} unitId:{}", key, unitId);
  bool found = false;
  const ConfigRecord& record = findRecord(*unitQuilt(unitId), key, found);
  return found && record.isDeleted == 0;
}

template <TableSpec T>
bool KelpEntryLog<T>::entryHas(const Key& key, Asic::UnitId unitId,
                               const ConfigRecord*& record) const {
  LUMEN_TRACE(entryLogTraceHandle<T>(), 8, className(), " key: {} unitId:{}", key, unitId);
  bool found = false;
  const ConfigRecord& inPlace = findRecord(*unitQuilt(unitId), key, found);
  record = found && inPlace.isDeleted == 0 ? &inPlace : nullptr;
  return record != nullptr;
}

template <TableSpec T>
typename T::Entry::ResourceKeys KelpEntryLog<T>::entryRsrcKeys(const Key& key,
                                                               Asic::UnitId unitId) const {
  LUMEN_TRACE(entryLogTraceHandle<T>(), 8, className(), " key: {} unitId:{}", key, unitId);
  return findRecord(*unitQuilt(unitId), key).entry.rsrcKeys;
}

template <TableSpec T>
Asic::LogVersion KelpEntryLog<T>::entryLogVersion(const Key& key, Asic::UnitId unitId) const {
  LUMEN_TRACE(entryLogTraceHandle<T>(), 8, className(), " key: {} unitId:{}", key, unitId);
  return findRecord(*unitQuilt(unitId), key).version;
}

template <TableSpec T>
unsigned KelpEntryLog<T>::entrysInDeletion(Asic::UnitId unitId) const {
  LUMEN_TRACE(entryLogTraceHandle<T>(), 8, className(), " unitId:{}", unitId);
  if (const auto counted = unitQuilt(unitId)->swTableEntries().marked()) {
    return static_cast<unsigned>(*counted);
  }
  unsigned count = 0;
  forEachRecord(*unitQuilt(unitId),
                [&](const ConfigRecord& record) { count += record.isDeleted != 0 ? 1U : 0U; });
  return count;
}

template <TableSpec T>
unsigned KelpEntryLog<T>::entrys(Asic::UnitId unitId) const {
  LUMEN_TRACE(entryLogTraceHandle<T>(), 8, className(), " unitId:{}", unitId);
  return static_cast<unsigned>(unitQuilt(unitId)->swTableEntries().size()) -
         entrysInDeletion(unitId);
}

// --- cleanup

template <TableSpec T>
void KelpEntryLog<T>::cleanupEntryLog(Asic::LogVersion version) {
  LUMEN_TRACE(entryLogTraceHandle<T>(), 8, className(), " version {}", version);
  if (this->lastCleanedVersion() > version) {
    this->lastCleanedVersionIs(version);
    return;
  }
  if (this->lastCleanedVersion().value == 0) {
    cleanupWholeLog(version);
  } else {
    cleanupVersions(version);
  }
  this->lastCleanedVersionIs(version);
}

// The log may hold anything from before the restart.
template <TableSpec T>
void KelpEntryLog<T>::cleanupWholeLog(Asic::LogVersion version) {
  auto& log = tableEntryLog_->entryLogConfig();
  LogRecord record;
  Quilt::IterHint hint;
  try {
    for (bool more = log.first(record, hint); more;) {
      const LogRecord copy = record;
      if (copy.version <= version) {
        tableEntryLog_->entryLogConfigDel(copy.version);
        cleanupRecord(copy);
      }
      more = log.next(copy.version, record, hint);
    }
  } catch (const Lumen::CorruptionDetectedException& corruption) {
    log.doCorruptionDetected(corruption.msg());
  }
}

template <TableSpec T>
void KelpEntryLog<T>::cleanupVersions(Asic::LogVersion version) {
  auto& log = tableEntryLog_->entryLogConfig();
  // No record stands above the version issued last, whatever was reported.
  const Asic::LogVersion last = std::min(version, this->tableVersion());
  Asic::LogVersion at = this->lastCleanedVersion();
  while (at <= last) {
    Asic::LogVersion next{at.value + 1};
    try {
      bool found = false;
      const LogRecord& record = log.find(at, found);
      if (found) {
        const LogRecord copy = record;
        tableEntryLog_->entryLogConfigDel(at);
        cleanupRecord(copy);
      } else {
        // Over the versions that have no record.
        LogRecord following;
        Quilt::IterHint hint;
        if (!log.next(at, following, hint)) {
          return;
        }
        next = following.version;
      }
    } catch (const Lumen::CorruptionDetectedException& corruption) {
      log.doCorruptionDetected(corruption.msg());
    }
    if (next <= at) {
      return;
    }
    at = next;
  }
}

template <TableSpec T>
void KelpEntryLog<T>::cleanupRecord(const LogRecord& record) {
  ConfigQuilt* configQuilt = unitQuilt(record.unitId);
  if (configQuilt == nullptr) {
    LUMEN_TRACE(entryLogTraceHandle<T>(), 3, className(), " configQuilt not found for unitId: {}",
                record.unitId);
    return;
  }
  if (record.isEntryDeleted()) {
    const Key& key = record.logEntry.key;
    if (findRecord(*configQuilt, key).version == record.version) {
      configQuilt->swTableEntriesDel(key);
    }
  } else if (record.isTableDeleted()) {
    LUMEN_TRACE(entryLogTraceHandle<T>(), 3, className(), " deleteing all entries for unitId: {}",
                record.unitId);
    forEachRecord(*configQuilt, [&](const ConfigRecord& deleted) {
      if (deleted.version == record.version) {
        configQuilt->swTableEntriesDel(deleted.quiltKey());
      }
    });
  }
}

}  // namespace KelpEmServer
