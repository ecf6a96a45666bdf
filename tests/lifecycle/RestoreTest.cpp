#include "LifecycleFixture.h"

// What a new agent finds of a unit, and what its table is then.

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

template <class T>
class Restore : public TestSupport::LifecycleFixture<T> {
 protected:
  std::string restored(unsigned entries, unsigned unit) {
    return fmt::format(" Restored {} entries for table: {}Kelp, unitId: {}", entries,
                       T::name.view(), unit);
  }
};
TYPED_TEST_SUITE(Restore, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(Restore, DeletedRecordsDoNotCount) {
  auto table = this->table();
  this->writeAll(table, 0, 3);
  this->remove(table, 1);
  this->pass();
  table = nullptr;
  this->restart(true);
  TestSupport::TraceCapture traces("*KelpInterface/2");
  table = this->table();
  EXPECT_EQ(this->records().size(), 3U);
  EXPECT_TRUE(traces.has(2, this->restored(2, 0)));
  EXPECT_THAT(this->view(table), ElementsAre(0, 2));
}

TYPED_TEST(Restore, NothingIsTakenIntoMemory) {
  this->earlierRun(30);
  this->start(true);
  const auto table = this->table();
  EXPECT_TRUE(table->transientAddEntry().empty());
  EXPECT_TRUE(table->transientRemoveEntry().empty());
  EXPECT_TRUE(table->transientVersionForKey().empty());
  EXPECT_TRUE(table->markedKey().empty());
  EXPECT_FALSE(table->transientRemoveAllVersion().valid());
  EXPECT_EQ(table->entryHandleInLogFront(), nullptr);
  for (std::uint64_t i = 0; i < 30; ++i) {
    EXPECT_TRUE(table->entryHas(this->key(i)));
    EXPECT_TRUE(TestSupport::isAsked(table->entryRead(this->key(i)), this->entry(i)));
  }
}

TYPED_TEST(Restore, AnAbsentCollectionIsMountedEmpty) {
  this->start(true);
  TestSupport::TraceCapture traces("*KelpInterface/2");
  const auto table = this->table();
  EXPECT_TRUE(traces.has(2, this->restored(0, 0)));
  EXPECT_EQ(table->entrys(), 0U);
  EXPECT_TRUE(table->inMarkingState());
  EXPECT_FALSE(table->hasPendingHwWrites());
  EXPECT_EQ(this->tableVersion(), 0U);
}

TYPED_TEST(Restore, RecordsAreTakenOverAndWhatIsNotMarkedIsSwept) {
  this->earlierRun(5, {this->unit0});
  this->start(true);
  TestSupport::TraceCapture traces("*KelpInterface/2");
  const auto table = this->table();
  EXPECT_TRUE(traces.has(2, this->restored(5, 0)));
  EXPECT_TRUE(table->inMarkingState());
  this->group()->sweepAll();
  this->pass();
  EXPECT_EQ(table->entrys(), 0U);
}

TYPED_TEST(Restore, WithResetAllEntriesGoInOneTableDelete) {
  this->earlierRun(5, {this->unit0});
  this->start(true);
  const auto table = this->intf()->makeSwTable(this->unit0, nullptr, true);
  EXPECT_EQ(table->entrys(), 0U);
  EXPECT_EQ(this->changes().size(), 6U);
  EXPECT_EQ(this->changes().back(), this->cleared(6));
  EXPECT_FALSE(table->inMarkingState());
  this->group()->sweepAll();
  EXPECT_EQ(this->pass(), 0U);
}

TYPED_TEST(Restore, AnAbsentUnitThatNobodyAsksForIsNotSeen) {
  this->earlierRun(5, {this->unit0});
  this->start(true);
  (void)this->table(this->unit0);
  this->intf()->reconcile();
  EXPECT_FALSE(this->intf()->swTableSet()->swTableHas(this->unit1));
  EXPECT_EQ(this->tableVersion(), 5U);
}

TYPED_TEST(Restore, TheMountRemovesTheDeletedRecordsThatTheHardwareSideHasTakenIn) {
  auto table = this->table();
  this->writeAll(table, 0, 4);
  this->remove(table, 0);  // version 5
  this->remove(table, 1);  // version 6
  this->pass();
  this->incarnation_ = this->incarnation();
  table = nullptr;
  this->stop();
  this->leaveRow(5);
  table = this->table();
  EXPECT_EQ(this->records().size(), 3U);
  EXPECT_EQ(this->log()->entrysInDeletion(this->unit0), 1U);
  EXPECT_THAT(this->changes(), ElementsAre(this->deleted(6, 1)));
  EXPECT_THAT(this->view(table), ElementsAre(2, 3));
  this->report(6);
  EXPECT_EQ(this->records().size(), 2U);
  EXPECT_THAT(this->changes(), IsEmpty());
}

TYPED_TEST(Restore, DeletedRecordsAreCountedByTheMountUntilSomethingChanges) {
  auto table = this->table();
  this->writeAll(table, 0, 9);
  this->remove(table, 0);
  this->remove(table, 4);
  this->pass();
  table = nullptr;
  this->restart();
  table = this->table();
  const auto& map = this->log()->tableConfigQuilt(this->unit0)->swTableEntries();
  EXPECT_EQ(map.marked(), 2U);
  EXPECT_EQ(this->log()->entrysInDeletion(this->unit0), 2U);
  EXPECT_EQ(table->entrys(), 7U);
  this->remove(table, 5);
  this->pass();
  EXPECT_EQ(map.marked(), std::nullopt);
  EXPECT_EQ(this->log()->entrysInDeletion(this->unit0), 3U);
  EXPECT_EQ(table->entrys(), 6U);
  this->writeAll(table, 4, 6);
  EXPECT_EQ(this->log()->entrysInDeletion(this->unit0), 1U);
  this->report(this->tableVersion());
  EXPECT_EQ(this->log()->entrysInDeletion(this->unit0), 0U);
  EXPECT_EQ(table->entrys(), 8U);
}

TYPED_TEST(Restore, TheStatusOfTheTableIsTheRowsVersion) {
  this->earlierRun(4, {this->unit0});
  this->leaveRow(3);
  TestSupport::TraceCapture traces("*Kelp*/2,3,8");
  (void)this->intf();
  EXPECT_TRUE(traces.has(3, " Cleaned entry log until table version: 3"));
  EXPECT_TRUE(traces.has(2, " Turning ON pendingHwWrites"));
  EXPECT_TRUE(this->intf()->swTableStatus()->pendingHwWrites());
  EXPECT_EQ(this->log()->lastCleanedVersion().value, 3U);
  traces.clear();
  const auto table = this->table();
  EXPECT_TRUE(traces.has(8, " unitId:0, logVersion: 3"));
  EXPECT_TRUE(traces.has(8, "tableVersion: 3"));
  EXPECT_TRUE(table->hasPendingHwWrites());
  this->report(4);
  EXPECT_FALSE(table->hasPendingHwWrites());
  EXPECT_FALSE(this->intf()->swTableStatus()->pendingHwWrites());
}

TYPED_TEST(Restore, ARowThatCoversTheLogLeavesNothingPending) {
  this->earlierRun(4, {this->unit0});
  this->leaveRow(4);
  const auto table = this->table();
  EXPECT_THAT(this->changes(), IsEmpty());
  EXPECT_FALSE(this->intf()->swTableStatus()->pendingHwWrites());
  EXPECT_FALSE(table->hasPendingHwWrites());
  EXPECT_EQ(this->tableVersion(), 4U);
}

}  // namespace
