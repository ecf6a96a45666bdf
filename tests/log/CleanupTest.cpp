#include <chrono>
#include <limits>

#include "LogFixture.h"

// Log cleanup.

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint64_t kHighest = std::numeric_limits<std::uint64_t>::max();

template <class T>
class LogCleanup : public TestSupport::LogFixture<T> {
 protected:
  // Writes keys 0, 1, ... so that versions up to `version` have been issued.
  void writeUpTo(std::uint64_t version) {
    while (this->tableVersion() < version) {
      (void)this->write(this->tableVersion());
    }
  }
};
TYPED_TEST_SUITE(LogCleanup, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(LogCleanup, ACleanupToVersion0OfAFreshLogLeavesTheNextOneAWholeWalk) {
  this->cleanup(0);
  EXPECT_EQ(this->lastCleaned(), 0U);
  this->writeUpTo(4);
  this->log().tableEntryLog()->entryLogConfigDel(Asic::LogVersion{2});
  this->cleanup(0);
  EXPECT_EQ(this->lastCleaned(), 0U);
  EXPECT_THAT(this->logVersions(), ElementsAre(1, 3, 4));
  this->cleanup(3);
  EXPECT_EQ(this->lastCleaned(), 3U);
  EXPECT_THAT(this->logVersions(), ElementsAre(4));
}

TYPED_TEST(LogCleanup, TheFirstCleanupOfARunWalksTheWholeLog) {
  this->writeUpTo(9);
  this->cleanup(2);
  EXPECT_THAT(this->logVersions(), ElementsAre(3, 4, 5, 6, 7, 8, 9));
  this->restart();
  (void)this->log();
  // Records below, at and above the version, with a gap.
  this->log().tableEntryLog()->entryLogConfigDel(Asic::LogVersion{5});
  this->cleanup(7);
  EXPECT_THAT(this->logVersions(), ElementsAre(8, 9));
  EXPECT_EQ(this->lastCleaned(), 7U);
}

TYPED_TEST(LogCleanup, TheMarkMovesBackAndNothingIsRemoved) {
  this->writeUpTo(14);
  this->cleanup(10);
  EXPECT_THAT(this->logVersions(), ElementsAre(11, 12, 13, 14));
  this->cleanup(5);
  EXPECT_EQ(this->lastCleaned(), 5U);
  EXPECT_THAT(this->logVersions(), ElementsAre(11, 12, 13, 14));
  // The next one looks at 5 to 12: a record that came back in between is removed, one below stays.
  using LogRecord = typename TestFixture::LogRecord;
  auto& quilt = *this->log().tableEntryLog();
  for (const std::uint64_t version : {4U, 5U, 8U}) {
    quilt.entryLogConfigIs(
        LogRecord(Asic::LogVersion{version}, this->entry(1).logEntry, this->unit0, 0));
  }
  this->cleanup(12);
  EXPECT_EQ(this->lastCleaned(), 12U);
  EXPECT_THAT(this->logVersions(), ElementsAre(4, 13, 14));
}

TYPED_TEST(LogCleanup, AMarkThatMovedBackTo0MakesTheNextCleanupAWholeWalk) {
  this->writeUpTo(5);
  this->cleanup(3);
  this->cleanup(0);
  EXPECT_EQ(this->lastCleaned(), 0U);
  EXPECT_THAT(this->logVersions(), ElementsAre(4, 5));
  this->cleanup(5);
  EXPECT_THAT(this->logVersions(), IsEmpty());
}

TYPED_TEST(LogCleanup, ASecondCleanupToTheSameVersionRemovesNothing) {
  this->writeUpTo(6);
  this->cleanup(4);
  EXPECT_THAT(this->logVersions(), ElementsAre(5, 6));
  this->cleanup(4);
  EXPECT_THAT(this->logVersions(), ElementsAre(5, 6));
  EXPECT_EQ(this->lastCleaned(), 4U);
}

TYPED_TEST(LogCleanup, AWriteAfterADeleteOutlivesTheCleanupOfTheDelete) {
  (void)this->write(8);
  (void)this->write(9);
  EXPECT_EQ(this->write(1), 3U);
  EXPECT_EQ(this->remove(1), 4U);
  EXPECT_EQ(this->write(1), 5U);
  this->cleanup(5);
  this->expectLive(1, 5);
  EXPECT_THAT(this->logVersions(), IsEmpty());
}

TYPED_TEST(LogCleanup, ADeletedRecordGoesWhenItsDeleteIsReached) {
  (void)this->write(8);
  (void)this->write(9);
  (void)this->write(1);
  EXPECT_EQ(this->remove(1), 4U);
  this->cleanup(3);
  this->expectDeleted(1, 4);
  this->cleanup(4);
  EXPECT_FALSE(this->hasRecord(1));
  EXPECT_EQ(this->log().entryLogVersion(this->key(1), this->unit0).value, 0U);
  EXPECT_EQ(this->records(), 2U);
}

TYPED_TEST(LogCleanup, ARecordDeletedTwiceGoesWithTheSecondDelete) {
  (void)this->write(1);
  (void)this->remove(1);
  EXPECT_EQ(this->remove(1), 3U);
  this->cleanup(2);
  this->expectDeleted(1, 3);
  this->cleanup(3);
  EXPECT_FALSE(this->hasRecord(1));
}

TYPED_TEST(LogCleanup, ADeleteOfAUnitThatIsNotMountedLeavesItsRecordToTheMount) {
  (void)this->write(1);
  (void)this->write(2);
  EXPECT_EQ(this->remove(1), 3U);
  (void)this->removeAll(this->unit1);
  this->restart();
  {
    TestSupport::TraceCapture traces("*KelpEntryLog/3");
    this->cleanup(4);
    ASSERT_EQ(traces.lines().size(), 4U) << "one for each record";
    EXPECT_EQ(traces.lines()[0].text, " configQuilt not found for unitId: 0");
    EXPECT_EQ(traces.lines()[3].text, " configQuilt not found for unitId: 1");
  }
  EXPECT_THAT(this->logVersions(), IsEmpty());
  this->bareLog().mountQuiltConfig(this->unit0, Asic::LogVersion{2});
  this->expectDeleted(1, 3);
  this->bareLog().mountQuiltConfig(this->unit0, Asic::LogVersion{4});
  EXPECT_FALSE(this->hasRecord(1));
  this->expectLive(2, 2);
}

TYPED_TEST(LogCleanup, ATableDeleteTakesItsOwnRecordsAndLeavesTheOthers) {
  this->writeUpTo(7);
  EXPECT_EQ(this->remove(0), 8U);  // deleted before it, by a delete of its own
  EXPECT_EQ(this->removeAll(), 9U);
  EXPECT_EQ(this->write(1), 10U);
  EXPECT_EQ(this->write(3, 0, this->unit1), 11U);
  // The delete of key 0 must not be what takes the others away.
  this->log().tableEntryLog()->entryLogConfigDel(Asic::LogVersion{8});
  TestSupport::TraceCapture traces("*KelpEntryLog/3");
  this->cleanup(10);
  EXPECT_TRUE(traces.has(3, " deleteing all entries for unitId: 0"));
  this->expectLive(1, 10);
  this->expectDeleted(0, 8);
  EXPECT_EQ(this->records(), 2U);
  EXPECT_EQ(this->records(this->unit1), 1U);
  EXPECT_THAT(this->logVersions(), ElementsAre(11));
}

TYPED_TEST(LogCleanup, AWriteRecordTouchesNoConfiguration) {
  EXPECT_EQ(this->write(1), 1U);
  EXPECT_EQ(this->write(2), 2U);
  EXPECT_EQ(this->remove(2), 3U);
  this->cleanup(2);
  this->expectLive(1, 1);
  this->expectDeleted(2, 3);
}

TYPED_TEST(LogCleanup, AnEntryDeleteIsLookedAtBeforeATableDelete) {
  using LogRecord = typename TestFixture::LogRecord;
  for (std::uint64_t i = 1; i <= 3; ++i) {
    (void)this->write(i);
  }
  EXPECT_EQ(this->removeAll(), 4U);
  // Both bits never come from the commit; bit 0 decides.
  this->log().tableEntryLog()->entryLogConfigIs(
      LogRecord(Asic::LogVersion{4}, this->entry(2).logEntry, this->unit0, 3));
  this->cleanup(4);
  EXPECT_FALSE(this->hasRecord(2));
  this->expectDeleted(1, 4);
  this->expectDeleted(3, 4);
}

TYPED_TEST(LogCleanup, AVersionWithoutARecordIsPassedOver) {
  this->writeUpTo(3);
  this->cleanup(1);
  this->writeUpTo(20);
  for (const std::uint64_t version : {1U, 2U, 5U, 6U, 7U, 12U}) {
    this->log().tableEntryLog()->entryLogConfigDel(Asic::LogVersion{version});
  }
  this->cleanup(12);
  EXPECT_THAT(this->logVersions(), ElementsAre(13, 14, 15, 16, 17, 18, 19, 20));
  EXPECT_EQ(this->lastCleaned(), 12U);
}

TYPED_TEST(LogCleanup, AVersionFarAboveEverythingCostsNoMoreThanTheRecords) {
  const auto begin = std::chrono::steady_clock::now();
  this->writeUpTo(10);
  this->cleanup(kHighest);  // the whole walk
  EXPECT_EQ(this->lastCleaned(), kHighest);
  EXPECT_THAT(this->logVersions(), IsEmpty());
  this->cleanup(1);  // back, so that the next goes version by version
  this->writeUpTo(20);
  this->cleanup(kHighest);
  EXPECT_EQ(this->lastCleaned(), kHighest);
  EXPECT_THAT(this->logVersions(), IsEmpty());
  // From the highest version on: nothing above it can be counted to.
  this->writeUpTo(22);
  this->cleanup(kHighest);
  EXPECT_THAT(this->logVersions(), ElementsAre(21, 22));
  this->cleanup(kHighest - 1);
  this->cleanup(kHighest);
  EXPECT_EQ(this->lastCleaned(), kHighest);
  // Counting through half of them would take a century.
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30));
}

TYPED_TEST(LogCleanup, CleanupsTraceTheirVersion) {
  TestSupport::TraceCapture traces("*KelpEntryLog/8");
  (void)this->bareLog();
  traces.clear();
  this->cleanup(17);
  ASSERT_EQ(traces.lines().size(), 1U);
  EXPECT_EQ(traces.lines()[0].level, 8U);
  EXPECT_EQ(traces.lines()[0].text, " version 17");
}

TYPED_TEST(LogCleanup, TheChangeLogIsWalkedInTheOrderOfItsVersions) {
  for (std::uint64_t i = 0; i < 300; ++i) {
    (void)this->write(i % 7);
  }
  const auto versions = this->logVersions();
  ASSERT_EQ(versions.size(), 300U);
  for (std::uint64_t i = 0; i < 300; ++i) {
    EXPECT_EQ(versions[i], i + 1);
  }
}

// --- a full log

class LogRoom : public TestSupport::LogFixture<KelpEmServer::EsemFodo> {};

TEST_F(LogRoom, CleanupMakesRoomForTheEntryThatWaited) {
  const auto swTable = table();
  auto& quilt = *bareLog().tableEntryLog();
  const auto filling = entry(5).logEntry;
  // The log as a silent hardware side leaves it: a million records.
  for (std::uint64_t version = 1; version <= 1000000; ++version) {
    quilt.entryLogConfigIs(LogRecord(Asic::LogVersion{version + 10}, filling, unit0, 0));
  }
  TestSupport::TraceCapture traces("*KelpSwTable/1");
  const auto handle = swTable->entryWrite(key(1), entry(1), nullptr);
  EXPECT_EQ(pass(), 0U);
  EXPECT_TRUE(
      traces.has(1, fmt::format("key: {}, isEntryDeleted: false : no space in entryLog!", key(1))));
  EXPECT_EQ(handle->entryState(), Asic::EntryState::entryStateUnresolved);
  quilt.entryLogConfigDel(Asic::LogVersion{11});
  group()->groupResolver()->updateGenId();
  EXPECT_EQ(pass(), 1U);
  EXPECT_EQ(handle->entryState(), Asic::EntryState::entryStateInLog);

  // Full again; a report takes the log's records away and lets the next one in.
  EXPECT_EQ(quilt.entryLogConfig().size(), 1000000U);
  const auto waiting = swTable->entryRemove(key(1), nullptr);
  EXPECT_EQ(pass(), 0U);
  report(1);
  EXPECT_EQ(quilt.entryLogConfig().size(), 999999U);
  EXPECT_EQ(pass(), 1U);
  EXPECT_EQ(waiting->entryState(), Asic::EntryState::entryStateInLog);
}

}  // namespace
