#include "LogFixture.h"

// Log writing: entryIs, entryDel and tableDel.

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

template <class T>
class LogWriting : public TestSupport::LogFixture<T> {};
TYPED_TEST_SUITE(LogWriting, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(LogWriting, TheFirstWriteGetsVersion1) {
  EXPECT_EQ(this->tableVersion(), 0U);
  EXPECT_EQ(this->write(1), 1U);
  this->expectIssued(1);
}

TYPED_TEST(LogWriting, AWriteStoresTheEntryInBothCollections) {
  const auto entry = this->entry(5, 3);
  EXPECT_EQ(this->write(entry, false, this->unit1), 1U);
  const auto record = this->record(5, this->unit1);
  EXPECT_TRUE(record.entry.isEq(entry));
  EXPECT_EQ(record.version.value, 1U);
  EXPECT_EQ(record.isDeleted, 0);
  const auto logged = this->logRecords();
  ASSERT_EQ(logged.size(), 1U);
  EXPECT_EQ(logged[0].version.value, 1U);
  EXPECT_TRUE(logged[0].logEntry.isEq(entry.logEntry));
  EXPECT_EQ(logged[0].unitId, this->unit1);
  EXPECT_EQ(logged[0].flags, 0);
  this->expectIssued(1);
  EXPECT_EQ(this->records(this->unit0), 0U) << "the other unit is not touched";
}

TYPED_TEST(LogWriting, VersionsAreIssuedAcrossTheUnitsOfATable) {
  EXPECT_EQ(this->write(1, 0, this->unit0), 1U);
  EXPECT_EQ(this->write(1, 0, this->unit1), 2U);
  EXPECT_EQ(this->remove(1, this->unit0), 3U);
  EXPECT_EQ(this->removeAll(this->unit1), 4U);
  EXPECT_THAT(this->logVersions(), ElementsAre(1, 2, 3, 4));
  this->expectIssued(4);
}

TYPED_TEST(LogWriting, AnIdenticalSuppressibleWriteGivesTheVersionOfTheFirst) {
  const std::uint64_t first = this->writeSuppressible(1);
  const auto needed = TestSupport::needed({{TypeParam::tableId, 1}});
  const auto entry = this->entry(1);
  TestSupport::TraceCapture traces("*KelpEntryLog/3");
  EXPECT_EQ(this->log()
                .entryIs(entry.logEntry, entry.rsrcKeys, needed, this->unit0, this->stats_, true)
                .value,
            first);
  EXPECT_TRUE(traces.has(3, fmt::format("Suppressing identical write for key: {}", this->key(1))));
  this->expectIssued(1);
  EXPECT_THAT(this->logVersions(), ElementsAre(1));
  EXPECT_EQ(this->stats_->suppressedWriteCnt(), 1U);
  EXPECT_EQ(this->stats_->suppressCheckDiffCnt(), 0U);
}

TYPED_TEST(LogWriting, AnIdenticalWriteThatIsNotSuppressibleIsLoggedAgain) {
  EXPECT_EQ(this->write(1), 1U);
  EXPECT_EQ(this->write(1), 2U);
  EXPECT_THAT(this->logVersions(), ElementsAre(1, 2));
  this->expectLive(1, 2);
  this->expectIssued(2);
  EXPECT_EQ(this->stats_->suppressedWriteCnt(), 0U);
  EXPECT_EQ(this->stats_->suppressCheckDiffCnt(), 0U);
}

TYPED_TEST(LogWriting, ASuppressibleWriteOfAnotherEntryIsLoggedAndCounted) {
  EXPECT_EQ(this->writeSuppressible(1, 0), 1U);
  TestSupport::TraceCapture traces("*KelpEntryLog/3");
  EXPECT_EQ(this->writeSuppressible(1, 1), 2U);
  EXPECT_TRUE(traces.has(
      3,
      fmt::format("Not Suppressing write because entry or resource key is different  for key: {}",
                  this->key(1))));
  EXPECT_EQ(this->stats_->suppressedWriteCnt(), 0U);
  EXPECT_EQ(this->stats_->suppressCheckDiffCnt(), 1U);
  EXPECT_TRUE(TestSupport::isAsked(this->record(1).entry, this->entry(1, 1)));
}

TYPED_TEST(LogWriting, ASuppressibleWriteOfANewKeyMovesNoCounter) {
  EXPECT_EQ(this->write(2), 1U);
  TestSupport::TraceCapture traces("*KelpEntryLog/3");
  EXPECT_EQ(this->writeSuppressible(1), 2U);
  EXPECT_EQ(this->stats_->suppressedWriteCnt(), 0U);
  EXPECT_EQ(this->stats_->suppressCheckDiffCnt(), 0U);
  EXPECT_THAT(traces.lines(), IsEmpty());
}

TYPED_TEST(LogWriting, ASuppressibleWriteOverADeletedEntryGoesAheadAndMovesNoCounter) {
  EXPECT_EQ(this->write(1), 1U);
  EXPECT_EQ(this->remove(1), 2U);
  EXPECT_EQ(this->writeSuppressible(1), 3U);
  this->expectLive(1, 3);
  EXPECT_EQ(this->stats_->suppressedWriteCnt(), 0U);
  EXPECT_EQ(this->stats_->suppressCheckDiffCnt(), 0U);
}

TYPED_TEST(LogWriting, AnIdenticalRecordOfVersion0CountsAsSuppressedButIsWritten) {
  (void)this->log();
  this->log()
      .tableConfigQuilt(this->unit0)
      ->swTableEntriesIs(
          typename TestFixture::ConfigRecord(this->entry(1), Asic::LogVersion{0}, false));
  TestSupport::TraceCapture traces("*KelpEntryLog/3");
  EXPECT_EQ(this->writeSuppressible(1), 1U);
  EXPECT_TRUE(traces.has(3, fmt::format("Suppressing identical write for key: {}", this->key(1))));
  EXPECT_EQ(this->stats_->suppressedWriteCnt(), 1U);
  EXPECT_EQ(this->stats_->suppressCheckDiffCnt(), 0U);
  this->expectLive(1, 1);
  EXPECT_THAT(this->logVersions(), ElementsAre(1));
}

TYPED_TEST(LogWriting, ReservedBytesDoNotTellEntriesApart) {
  auto entry = this->entry(1);
  EXPECT_EQ(this->write(entry), 1U);
  if constexpr (requires { entry.logEntry.reserved; }) {
    entry.logEntry.reserved[0] = 0x5a;
  }
  EXPECT_EQ(this->write(entry, true), 1U);
  EXPECT_EQ(this->stats_->suppressedWriteCnt(), 1U);
}

TYPED_TEST(LogWriting, ADeleteOfAnUnknownKeyChangesNothing) {
  EXPECT_EQ(this->write(1), 1U);
  TestSupport::TraceCapture traces("*KelpEntryLog/3");
  EXPECT_EQ(this->remove(2), 0U);
  EXPECT_TRUE(traces.has(
      3, fmt::format(" key: {} entry does not exist. So ignoring delete", this->key(2))));
  this->expectIssued(1);
  EXPECT_EQ(this->logControl()->announced(), 1U);
  EXPECT_THAT(this->logVersions(), ElementsAre(1));
  EXPECT_EQ(this->records(), 1U);
}

TYPED_TEST(LogWriting, ADeleteKeepsTheRecordMarkedAndStamped) {
  EXPECT_EQ(this->write(1, 4), 1U);
  EXPECT_EQ(this->remove(1), 2U);
  this->expectDeleted(1, 2);
  EXPECT_TRUE(TestSupport::isAsked(this->record(1).entry, this->entry(1, 4)));
  const auto logged = this->logRecords();
  ASSERT_EQ(logged.size(), 2U);
  EXPECT_TRUE(TestSupport::isAsked(logged[1].logEntry, this->entry(1, 4).logEntry));
  EXPECT_EQ(logged[1].unitId, this->unit0);
  EXPECT_EQ(logged[1].flags, 1);
  this->expectIssued(2);
}

TYPED_TEST(LogWriting, TwoDeletesOfOneKeyLeaveTwoLogRecordsAndTheLaterVersion) {
  EXPECT_EQ(this->write(1), 1U);
  EXPECT_EQ(this->remove(1), 2U);
  EXPECT_EQ(this->remove(1), 3U);
  this->expectDeleted(1, 3);
  const auto logged = this->logRecords();
  ASSERT_EQ(logged.size(), 3U);
  EXPECT_EQ(logged[1].flags, 1);
  EXPECT_EQ(logged[2].flags, 1);
  this->expectIssued(3);
}

TYPED_TEST(LogWriting, ATableDeleteOfAnEmptyCollectionIsLogged) {
  EXPECT_EQ(this->removeAll(), 1U);
  const auto logged = this->logRecords();
  ASSERT_EQ(logged.size(), 1U);
  EXPECT_EQ(logged[0].version.value, 1U);
  EXPECT_EQ(logged[0].flags, 2);
  EXPECT_TRUE(logged[0].logEntry.isEq(typename TestFixture::LogEntry()));
  EXPECT_EQ(logged[0].unitId, this->unit0);
  this->expectIssued(1);
}

TYPED_TEST(LogWriting, ATableDeleteMarksTheLiveRecordsOfItsUnitOnly) {
  for (std::uint64_t i = 0; i < 4; ++i) {
    (void)this->write(i, i);
  }
  EXPECT_EQ(this->remove(0), 5U);
  EXPECT_EQ(this->write(9, 0, this->unit1), 6U);
  EXPECT_EQ(this->removeAll(), 7U);
  this->expectDeleted(0, 5);  // deleted before: it keeps its version
  for (std::uint64_t i = 1; i < 4; ++i) {
    this->expectDeleted(i, 7);
    EXPECT_TRUE(TestSupport::isAsked(this->record(i).entry, this->entry(i, i)));
  }
  EXPECT_EQ(this->record(9, this->unit1).isDeleted, 0);
  EXPECT_EQ(this->logRecords().back().flags, 2);
  this->expectIssued(7);
}

TYPED_TEST(LogWriting, ARecordGoesThroughItsStates) {
  // absent - entryIs - live
  EXPECT_EQ(this->write(1), 1U);
  this->expectLive(1, 1);
  // live - entryIs - live at the new version
  EXPECT_EQ(this->write(1, 1), 2U);
  this->expectLive(1, 2);
  // live - entryIs, suppressed - unchanged
  EXPECT_EQ(this->writeSuppressible(1, 1), 2U);
  this->expectLive(1, 2);
  // live - entryDel - deleted
  EXPECT_EQ(this->remove(1), 3U);
  this->expectDeleted(1, 3);
  // deleted - entryDel - deleted at the new version
  EXPECT_EQ(this->remove(1), 4U);
  this->expectDeleted(1, 4);
  // deleted - tableDel - unchanged
  EXPECT_EQ(this->removeAll(), 5U);
  this->expectDeleted(1, 4);
  // deleted - entryIs - live
  EXPECT_EQ(this->write(1), 6U);
  this->expectLive(1, 6);
  // live - tableDel - deleted
  EXPECT_EQ(this->removeAll(), 7U);
  this->expectDeleted(1, 7);
  // deleted - a cleanup below its version - unchanged
  this->cleanup(6);
  this->expectDeleted(1, 7);
  // deleted - cleanup reaches the delete record - absent
  this->cleanup(7);
  EXPECT_FALSE(this->hasRecord(1));
  // deleted - mount with a status version that covers it - absent
  EXPECT_EQ(this->write(1), 8U);
  EXPECT_EQ(this->remove(1), 9U);
  this->bareLog().mountQuiltConfig(this->unit0, Asic::LogVersion{8});
  this->expectDeleted(1, 9);
  this->bareLog().mountQuiltConfig(this->unit0, Asic::LogVersion{9});
  EXPECT_FALSE(this->hasRecord(1));
}

TYPED_TEST(LogWriting, WritesTraceTheirArguments) {
  (void)this->log();
  const auto entry = this->entry(1);
  const auto set = TestSupport::needed({{Asic::SwTableId{0x29080404}, 7}});
  TestSupport::TraceCapture traces("*KelpEntryLog/8");
  (void)this->log().entryIs(entry.logEntry, entry.rsrcKeys, set, this->unit0, this->stats_, false);
  EXPECT_TRUE(traces.has(8, fmt::format(" logEntry: {} neededEntry: {} version: 1 unitId: 0 "
                                        "suppressIdenticalWrites: false",
                                        entry.logEntry, set)));
  (void)this->log().entryDel(this->key(1), set, this->unit0);
  EXPECT_TRUE(traces.has(8, fmt::format(" key:{} neededEntry: {} unitId: 0", this->key(1), set)));
  (void)this->log().tableDel(set, this->unit0);
  EXPECT_TRUE(traces.has(8, fmt::format(" neededEntry:{}, unitId: 0", set)));
  traces.clear();
  (void)this->log().entryIs(entry.logEntry, entry.rsrcKeys, nullptr, this->unit0, this->stats_,
                            true);
  (void)this->log().entryIs(entry.logEntry, entry.rsrcKeys, nullptr, this->unit0, this->stats_,
                            true);
  ASSERT_EQ(traces.lines().size(), 1U) << "a suppressed write does not reach the trace";
}

// Tables that name resources: four with one, one with two.
template <class T>
class LogWritingResourceKeys : public TestSupport::LogFixture<T> {};
using TablesWithResources =
    testing::Types<KelpEmServer::EsemFodoVd, KelpEmServer::Isem1Tag, KelpEmServer::Isem2Tag,
                   KelpEmServer::IsemMpls, KelpEmServer::IsemUntagged>;
TYPED_TEST_SUITE(LogWritingResourceKeys, TablesWithResources, TestSupport::TableTestName);

TYPED_TEST(LogWritingResourceKeys, AWriteThatDiffersOnlyInItsResourceKeyIsLogged) {
  const auto entry = this->entry(1);
  auto other = entry;
  if constexpr (requires { other.rsrcKeys.inLifIdxKey; }) {
    other.rsrcKeys.inLifIdxKey.vrf += 1;
  } else {
    other.rsrcKeys.remarkProfileType += 1;
  }
  EXPECT_EQ(this->write(entry, true), 1U);
  EXPECT_EQ(this->write(other, true), 2U);
  EXPECT_EQ(this->stats_->suppressedWriteCnt(), 0U);
  EXPECT_EQ(this->stats_->suppressCheckDiffCnt(), 1U);
  EXPECT_TRUE(this->record(1).entry.isEq(other));
}

TYPED_TEST(LogWritingResourceKeys, AWriteThatDiffersOnlyInItsLogEntryIsLogged) {
  const auto entry = this->entry(1);
  auto other = entry;
  if constexpr (requires { other.logEntry.inLif0Index; }) {
    other.logEntry.inLif0Index = 77;
  } else {
    other.logEntry.vlanEditProfile = 7;
  }
  EXPECT_EQ(this->write(entry, true), 1U);
  EXPECT_EQ(this->write(other, true), 2U);
  EXPECT_EQ(this->stats_->suppressedWriteCnt(), 0U);
  EXPECT_EQ(this->stats_->suppressCheckDiffCnt(), 1U);
}

TYPED_TEST(LogWritingResourceKeys, ADeleteKeepsTheResourceKeysOfTheLastWrite) {
  EXPECT_EQ(this->write(1, 8), 1U);
  EXPECT_EQ(this->remove(1), 2U);
  EXPECT_TRUE(TestSupport::isAsked(this->record(1).entry.rsrcKeys, this->entry(1, 8).rsrcKeys));
  EXPECT_EQ(this->write(2, 9), 3U);
  EXPECT_EQ(this->removeAll(), 4U);
  EXPECT_TRUE(TestSupport::isAsked(this->record(2).entry.rsrcKeys, this->entry(2, 9).rsrcKeys));
}

template <class T>
class LogWritingDeathTest : public TestSupport::LogFixture<T> {};
TYPED_TEST_SUITE(LogWritingDeathTest, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(LogWritingDeathTest, AWriteOnAUnitThatIsNotMountedEndsTheProcessWithASentence) {
  const auto entry = this->entry(1);
  auto& log = this->bareLog();
  EXPECT_DEATH(
      (void)log.entryIs(entry.logEntry, entry.rsrcKeys, nullptr, Asic::UnitId{37}, this->stats_,
                        false),
      testing::AllOf(
          testing::HasSubstr(
              "tableConfigQuiltHas( unitId ): Config quilt for unitId:37 is not created yet!"),
          testing::HasSubstr("Assertion `\"tableConfigQuiltHas( unitId )\" == nullptr' failed.")));
}

}  // namespace
