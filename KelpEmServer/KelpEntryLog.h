#pragma once

#include <cstdint>
#include <vector>

#include "Asic/EntryLogBase.h"
#include "Asic/NeededEntry.h"
#include "Asic/SwTableStats.h"
#include "Brio/Attributes.h"
#include "Brio/HashMap2018.h"
#include "BrioQuilt/MountInfo.h"
#include "KelpEmServer/Forward.h"
#include "KelpEmServer/KelpConstants.h"
#include "KelpEmServer/TypeModule.h"
#include "Lumen/Ptr.h"
#include "PoolSlab/Slabbed.h"

namespace KelpEmServer {

// The durable half of a table: the change log, with every change that the hardware side has not yet
// acknowledged, and the configuration collection of each unit, with the value of every entry.
// Shared by the table's units. It hands out the versions that order all changes.
//
// A change stores the configuration record, then the change-log record, then the version in the
// change log's scratchpad word, and then tells the group; each step is finished before the next
// begins. Deletes are soft: the record stays, marked and stamped with the delete's version, until
// cleanup reaches it.
template <TableSpec T>
class KELP_EM_EXPORT KelpEntryLog final : public Asic::EntryLogBase,
                                          public PoolSlab::Slabbed<KelpEntryLog<T>> {
 public:
  using Entry = typename T::Entry;
  using Key = typename Entry::Key;
  using LogEntry = typename Entry::LogEntry;
  using ResourceKeys = typename Entry::ResourceKeys;
  using ConfigQuilt = typename T::ConfigQuilt;
  using EntryLogQuilt = typename T::EntryLogQuilt;
  using ConfigRecord = typename ConfigQuilt::Record;
  using LogRecord = typename EntryLogQuilt::Record;

  static constexpr std::uint32_t kChangeLogCapacity = 1000000;
  static constexpr std::uint32_t kConfigCapacity = 0x10000;

  struct HN_TableConfigQuilt
      : Brio::Hm2018NE<T::salts.tableConfigQuilt, Asic::UnitId, Lumen::Ptr<ConfigQuilt>, 1> {
    static constexpr const char* className() {
      return kTableText<T, "KelpEntryLog::HN_TableConfigQuilt">.c_str();
    }
    using Brio::Hm2018NE<T::salts.tableConfigQuilt, Asic::UnitId, Lumen::Ptr<ConfigQuilt>,
                         1>::Hm2018NE;
  };

  static constexpr const char* className() { return kTableText<T, "KelpEntryLog">.c_str(); }
  static constexpr auto attributes() {
    return Brio::attributeList(
        258, Brio::stored("tableEntryLog", &KelpEntryLog::tableEntryLog_),
        Brio::collection("tableConfigQuilt", &KelpEntryLog::tableConfigQuilt_)
            .writtenBy(&KelpEntryLog::tableConfigQuiltIs)
            .deletedBy(&KelpEntryLog::tableConfigQuiltDel),
        Brio::operation("entryIs", &KelpEntryLog::entryIs).checkedBy(&KelpEntryLog::checkUnit),
        Brio::operation("entryDel", &KelpEntryLog::entryDel)
            .checkedBy(&KelpEntryLog::checkUnit)
            .takesNull(),
        Brio::operation("tableDel", &KelpEntryLog::tableDel)
            .checkedBy(&KelpEntryLog::checkUnit)
            .takesNull(),
        Brio::operation("entry", &KelpEntryLog::entry).checkedBy(&KelpEntryLog::checkUnit),
        Brio::operation("entryHas",
                        static_cast<bool (KelpEntryLog::*)(const Key&, Asic::UnitId) const>(
                            &KelpEntryLog::entryHas))
            .checkedBy(&KelpEntryLog::checkUnit),
        Brio::operation("entryRsrcKeys", &KelpEntryLog::entryRsrcKeys)
            .checkedBy(&KelpEntryLog::checkUnit),
        Brio::operation("entryLogVersion", &KelpEntryLog::entryLogVersion)
            .checkedBy(&KelpEntryLog::checkUnit),
        Brio::operation("entrys", &KelpEntryLog::entrys).checkedBy(&KelpEntryLog::checkUnit),
        Brio::operation("entrysInDeletion", &KelpEntryLog::entrysInDeletion)
            .checkedBy(&KelpEntryLog::checkUnit),
        Brio::operation("cleanupEntryLog", &KelpEntryLog::cleanupEntryLog),
        Brio::operation("mountQuiltChangeLog", &KelpEntryLog::mountQuiltChangeLog),
        Brio::operation("mountQuiltConfig", &KelpEntryLog::mountQuiltConfig)
            .checkedBy(&KelpEntryLog::checkUnit),
        Brio::operation("handleInitialized", &KelpEntryLog::handleInitialized).notServed());
  }

  // A constructed log is mounted. Throws BrioSharedMem::StoreError if the change log can't be.
  KelpEntryLog(Asic::SwTableId tableId, const Lumen::Ptr<Vault::EntityManager>& entityManager,
               const Lumen::Ptr<Asic::GroupInterface>& groupInterface,
               const Lumen::String& agentName);
  ~KelpEntryLog() override = default;
  [[nodiscard]] static Lumen::Ptr<KelpEntryLog> KelpEntryLogIs(
      Asic::SwTableId tableId, const Lumen::Ptr<Vault::EntityManager>& entityManager,
      const Lumen::Ptr<Asic::GroupInterface>& groupInterface, const Lumen::String& agentName) {
    return Lumen::makeNode<KelpEntryLog>(tableId, entityManager, groupInterface, agentName);
  }
  static constexpr auto factory() { return &KelpEntryLog::KelpEntryLogIs; }

  static constexpr const Lumen::TypeData& classData() {
    return kTypeData<T, "KelpEntryLog", 0, "KelpEntryLog", &Asic::EntryLogBase::classData()>;
  }
  [[nodiscard]] const Lumen::TypeData& typeData() const override { return classData(); }

  // Mounts the configuration collection of a unit, and removes the deleted records that the
  // hardware side had seen up to `logVersion`; with 0 it removes none. Asserts "cfgQuilt" if there
  // is no collection.
  void mountQuiltConfig(Asic::UnitId unitId, Asic::LogVersion logVersion);
  void mountQuiltChangeLog();

  // Has the processor fetch what a read or write of the key will look for (QuiltMap.h).
  void fetchAhead(const Key& key, Asic::UnitId unitId, bool near) const noexcept {
    if (const ConfigQuilt* configQuilt = unitQuilt(unitId)) {
      configQuilt->swTableEntries().fetchAhead(key, near);
    }
  }

  // Writes an entry; the unit must be mounted, and there must be room. Returns the version of the
  // change, or that of the identical record that made it needless.
  Asic::LogVersion entryIs(const LogEntry& logEntry, const ResourceKeys& rsrcKeys,
                           const Lumen::Ptr<const Asic::NeededEntry>& neededEntry,
                           Asic::UnitId unitId, const Lumen::Ptr<Asic::SwTableStats>& stats,
                           bool suppressIdenticalWrites);
  // Deletes one entry. Returns the version of the delete, or 0 if the key has no record.
  Asic::LogVersion entryDel(const Key& key, const Lumen::Ptr<const Asic::NeededEntry>& neededEntry,
                            Asic::UnitId unitId);
  // Deletes all entries of a unit. Returns the version of the delete; never 0.
  Asic::LogVersion tableDel(const Lumen::Ptr<const Asic::NeededEntry>& neededEntry,
                            Asic::UnitId unitId);

  // Reads of the configuration collection of one unit, which is mounted. A deleted record is gone
  // for the first three, and still there for entryRsrcKeys and entryLogVersion. Defaults, and
  // version 0, where there is none.
  [[nodiscard]] LogEntry entry(const Key& key, Asic::UnitId unitId) const;
  [[nodiscard]] bool entryHas(const Key& key, Asic::UnitId unitId) const;
  // The same, and where the record is: null if there is none, good until the next change of the
  // collection.
  [[nodiscard]] bool entryHas(const Key& key, Asic::UnitId unitId,
                              const ConfigRecord*& record) const;
  [[nodiscard]] unsigned entrys(Asic::UnitId unitId) const;
  [[nodiscard]] ResourceKeys entryRsrcKeys(const Key& key, Asic::UnitId unitId) const;
  [[nodiscard]] Asic::LogVersion entryLogVersion(const Key& key, Asic::UnitId unitId) const;
  // Walks the whole collection, unless nothing has changed since its mount.
  [[nodiscard]] unsigned entrysInDeletion(Asic::UnitId unitId) const;

  // The hardware side has seen everything up to `version`: removes the change-log records up to it,
  // and the deleted configuration records that waited for them. The first cleanup of a run walks
  // the whole log.
  void cleanupEntryLog(Asic::LogVersion version);

  // Whether the change log takes another record.
  [[nodiscard]] bool hasRoomInLog();
  // Whether the unit's collection takes a record of this key.
  [[nodiscard]] bool hasRoomFor(const Key& key, Asic::UnitId unitId);

  [[nodiscard]] const Lumen::Ptr<EntryLogQuilt>& tableEntryLog() const noexcept {
    return tableEntryLog_;
  }
  // The mounted collections, by unit; null if the unit is not mounted.
  [[nodiscard]] const auto& tableConfigQuilt() const noexcept { return tableConfigQuilt_; }
  [[nodiscard]] Lumen::Ptr<ConfigQuilt> tableConfigQuilt(Asic::UnitId unitId) const;
  // A null pointer removes the node.
  void tableConfigQuiltIs(Asic::UnitId unitId, const Lumen::Ptr<ConfigQuilt>& configQuilt);
  Lumen::Ptr<ConfigQuilt> tableConfigQuiltDel(Asic::UnitId unitId);
  void tableConfigQuiltDelAll();

  // The record of a key, deleted or not, or the default record. Corruption is reported to the
  // collection, and yields the default record. Good until the next change of the collection.
  [[nodiscard]] static const ConfigRecord& findRecord(ConfigQuilt& configQuilt, const Key& key);
  [[nodiscard]] static const ConfigRecord& findRecord(ConfigQuilt& configQuilt, const Key& key,
                                                      bool& found);
  // The record of a key of a unit, which must be mounted; as findRecord().
  [[nodiscard]] const ConfigRecord& configRecord(const Key& key, Asic::UnitId unitId) const {
    return findRecord(*unitQuilt(unitId), key);
  }
  // Calls `visit` for a copy of each record; it may remove or overwrite that record. Corruption is
  // reported to the collection, and ends the walk.
  template <class Visit>
  static void forEachRecord(ConfigQuilt& configQuilt, Visit&& visit);

 private:
  void handleInitialized();
  static void declareConfig(BrioQuilt::MountInfo& info);
  [[nodiscard]] ConfigQuilt* unitQuilt(Asic::UnitId unitId) const;
  // Throws if the unit is not mounted: callers from outside may name any.
  void checkUnit(Asic::UnitId unitId) const;
  // The version of the identical record that makes a write needless; 0 if it has to go ahead.
  [[nodiscard]] Asic::LogVersion identicalVersion(ConfigQuilt& configQuilt,
                                                  const LogEntry& logEntry,
                                                  const ResourceKeys& rsrcKeys,
                                                  Asic::SwTableStats& stats) const;
  // Takes a change that a dying process cut off to its end. See KelpEntryLogRecovery.h.
  void finishCutOffChange();
  [[nodiscard]] std::vector<Asic::LogVersion> versionsInLog(Asic::LogVersion after,
                                                            Asic::LogVersion last);
  [[nodiscard]] std::vector<Asic::LogVersion> completeChange(Asic::LogVersion announced);
  [[nodiscard]] Lumen::Ptr<Asic::NeededEntry> everythingPublished() const;
  // The last three steps of every change.
  void finishChange(const LogRecord& record,
                    const Lumen::Ptr<const Asic::NeededEntry>& neededEntry);
  void cleanupWholeLog(Asic::LogVersion version);
  void cleanupVersions(Asic::LogVersion version);
  void cleanupRecord(const LogRecord& record);

  Lumen::Ptr<EntryLogQuilt> tableEntryLog_;
  Brio::HashMap2018<HN_TableConfigQuilt> tableConfigQuilt_;
  // The unit that was asked for last, of those in tableConfigQuilt_: operations come in runs.
  mutable Asic::UnitId lastUnit_;
  mutable ConfigQuilt* lastUnitQuilt_ = nullptr;
};

}  // namespace KelpEmServer
