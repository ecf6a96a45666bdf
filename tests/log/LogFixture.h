#pragma once

#include <gmock/gmock.h>

#include <cstdint>
#include <initializer_list>
#include <utility>
#include <vector>

#include "Asic/NeededEntry.h"
#include "Asic/SwTableStats.h"
#include "Quilt/IterHint.h"
#include "TableFixture.h"

namespace TestSupport {

// Drives the entry log of one table by hand, without a software table.
template <class T>
class LogFixture : public TableFixture<T> {
 public:
  using Base = TableFixture<T>;
  using Log = KelpEmServer::KelpEntryLog<T>;
  using Entry = typename Base::Entry;
  using Key = typename Base::Key;
  using LogEntry = typename Entry::LogEntry;
  using ConfigRecord = typename Log::ConfigRecord;
  using LogRecord = typename Log::LogRecord;
  using Versions = std::vector<std::uint64_t>;

 protected:
  // The table's log, with the unit's collection mounted.
  Log& log(Asic::UnitId unit = Base::unit0) {
    Log& entryLog = bareLog();
    if (!entryLog.tableConfigQuilt(unit)) {
      entryLog.mountQuiltConfig(unit, Asic::LogVersion{});
    }
    return entryLog;
  }
  // The table's log as the interface made it.
  Log& bareLog() { return *this->intf()->entryLog(); }

  std::uint64_t write(const Entry& entry, bool suppress = false, Asic::UnitId unit = Base::unit0) {
    return log(unit).entryIs(entry.logEntry, entry.rsrcKeys, nullptr, unit, stats_, suppress).value;
  }
  std::uint64_t write(std::uint64_t number, std::uint64_t variant = 0,
                      Asic::UnitId unit = Base::unit0) {
    return write(Base::entry(number, variant), false, unit);
  }
  std::uint64_t writeSuppressible(std::uint64_t number, std::uint64_t variant = 0) {
    return write(Base::entry(number, variant), true);
  }
  std::uint64_t remove(std::uint64_t number, Asic::UnitId unit = Base::unit0) {
    return log(unit).entryDel(Base::key(number), nullptr, unit).value;
  }
  std::uint64_t removeAll(Asic::UnitId unit = Base::unit0) {
    return log(unit).tableDel(nullptr, unit).value;
  }
  void cleanup(std::uint64_t version) { bareLog().cleanupEntryLog(Asic::LogVersion{version}); }

  // The record of a key, deleted or not; the default record if there is none.
  ConfigRecord record(std::uint64_t number, Asic::UnitId unit = Base::unit0) {
    bool found = false;
    return log(unit).tableConfigQuilt(unit)->swTableEntries().find(Base::key(number), found);
  }
  bool hasRecord(std::uint64_t number, Asic::UnitId unit = Base::unit0) {
    bool found = false;
    (void)log(unit).tableConfigQuilt(unit)->swTableEntries().find(Base::key(number), found);
    return found;
  }
  std::uint64_t records(Asic::UnitId unit = Base::unit0) {
    return log(unit).tableConfigQuilt(unit)->swTableEntries().size();
  }
  std::vector<LogRecord> logRecords() {
    auto& map = bareLog().tableEntryLog()->entryLogConfig();
    std::vector<LogRecord> all;
    LogRecord record;
    Quilt::IterHint hint;
    for (bool more = map.first(record, hint); more; more = map.next(record.version, record, hint)) {
      all.push_back(record);
    }
    return all;
  }
  Versions logVersions() {
    Versions versions;
    for (const LogRecord& record : logRecords()) {
      versions.push_back(record.version.value);
    }
    return versions;
  }
  std::uint64_t tableVersion() { return bareLog().tableVersion().value; }
  std::uint64_t lastCleaned() { return bareLog().lastCleanedVersion().value; }
  Lumen::Ptr<BrioQuilt::CollectionControl> logControl() {
    return bareLog().tableEntryLog()->collectionControl();
  }
  // What the change log, the scratchpad and the group know of the versions issued.
  void expectIssued(std::uint64_t version) {
    EXPECT_EQ(tableVersion(), version);
    EXPECT_EQ(logControl()->scratchpad(), version);
    EXPECT_EQ(logControl()->published(), version);
  }
  void expectLive(std::uint64_t number, std::uint64_t version) {
    ASSERT_TRUE(hasRecord(number));
    EXPECT_EQ(record(number).version.value, version);
    EXPECT_EQ(record(number).isDeleted, 0);
  }
  void expectDeleted(std::uint64_t number, std::uint64_t version) {
    ASSERT_TRUE(hasRecord(number));
    EXPECT_EQ(record(number).version.value, version);
    EXPECT_EQ(record(number).isDeleted, 1);
  }

  const Lumen::Ptr<Asic::SwTableStats> stats_ = Lumen::makeNode<Asic::SwTableStats>();
};

// A set of dependencies.
inline Lumen::Ptr<const Asic::NeededEntry> needed(
    std::initializer_list<std::pair<Asic::SwTableId, std::uint64_t>> versions) {
  auto set = Lumen::makeNode<Asic::NeededEntry>();
  for (const auto& [tableId, version] : versions) {
    set->add({tableId, Asic::LogVersion{version}});
  }
  return set;
}

}  // namespace TestSupport
