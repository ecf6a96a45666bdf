#include "InterfaceFixture.h"

// Clearing a table: one table delete for all its committed entries.

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

template <class T>
class TableClear : public TestSupport::InterfaceFixture<T> {
 protected:
  // The handle of the operation that is queued first.
  static auto queuedHandle(typename TestSupport::InterfaceFixture<T>::Table& table) {
    return Lumen::staticPtrCast<KelpEmServer::KelpResolverEntry<T>>(table.resolverQueue().front())
        ->swTableEntry()
        ->entryHandle();
  }
  std::uint8_t lastFlags() {
    auto& map = this->intf()->entryLog()->tableEntryLog()->entryLogConfig();
    bool found = false;
    return map.find(this->intf()->entryLog()->tableVersion(), found).flags;
  }
};
TYPED_TEST_SUITE(TableClear, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(TableClear, OfAUnitWithoutRecordsLogsNothing) {
  const auto table = this->table();
  for (const bool release : {false, true}) {
    table->clearTable(release);
    EXPECT_THAT(this->logVersions(), IsEmpty());
    EXPECT_EQ(table->stats()->tableClearCnt(), 0U);
    EXPECT_EQ(this->intf()->entryLog()->tableVersion().value, 0U);
  }
}

TYPED_TEST(TableClear, LogsOneTableDeleteAndCounts) {
  const auto table = this->table();
  for (std::uint64_t i = 0; i < 3; ++i) {
    this->commit(table, i);
  }
  table->clearTable(false);
  EXPECT_THAT(this->logVersions(), ElementsAre(1, 2, 3, 4));
  EXPECT_EQ(this->lastFlags(), 2);
  EXPECT_EQ(table->stats()->tableClearCnt(), 1U);
  EXPECT_EQ(table->stats()->commitCnt(), 3U);
  EXPECT_EQ(table->entrys(), 0U);
  EXPECT_EQ(this->intf()->entryLog()->entrysInDeletion(this->unit0), 3U);
}

TYPED_TEST(TableClear, OfATableWithDeletedRecordsOnlyIsLoggedAndLeavesTheirVersions) {
  const auto table = this->table();
  this->commit(table, 1);
  (void)table->entryRemove(this->key(1), nullptr);
  this->pass();
  table->clearTable(true);
  EXPECT_EQ(table->stats()->tableClearCnt(), 1U) << "the collection holds a record";
  EXPECT_THAT(this->logVersions(), ElementsAre(1, 2, 3));
  EXPECT_EQ(this->intf()->entryLog()->entryLogVersion(this->key(1), this->unit0).value, 2U);
}

TYPED_TEST(TableClear, LeavesTheOtherUnits) {
  const auto table0 = this->table(this->unit0);
  const auto table1 = this->table(this->unit1);
  this->commit(table0, 1);
  this->commit(table1, 1);
  table0->clearTable(false);
  EXPECT_EQ(table0->entrys(), 0U);
  EXPECT_EQ(table1->entrys(), 1U);
  EXPECT_EQ(table1->stats()->tableClearCnt(), 0U);
}

TYPED_TEST(TableClear, LeavesWhatIsInFlight) {
  const auto table = this->table();
  this->commit(table, 1);
  this->commit(table, 2);
  const auto write = table->entryWrite(this->key(3), this->entry(3), nullptr);
  const auto remove = table->entryRemove(this->key(2), nullptr);
  table->clearTable(false);
  EXPECT_EQ(table->transientAddEntry().size(), 1U);
  EXPECT_EQ(table->transientRemoveEntry().size(), 1U);
  EXPECT_EQ(write->entryState(), Asic::EntryState::entryStateUnresolved);
  EXPECT_EQ(this->pass(), 2U);
  EXPECT_EQ(write->logVersion().value, 4U);
  EXPECT_EQ(remove->logVersion().value, 5U) << "the marked record is still there to be deleted";
  EXPECT_EQ(table->entrys(), 1U);
}

TYPED_TEST(TableClear, OfAUnitThatIsNotMountedDoesNothing) {
  const auto table = this->table();
  this->commit(table, 1);
  const auto quilt = this->intf()->entryLog()->tableConfigQuiltDel(this->unit0);
  table->clearTable(true);
  EXPECT_EQ(table->stats()->tableClearCnt(), 0U);
  this->intf()->entryLog()->tableConfigQuiltIs(this->unit0, quilt);
  EXPECT_EQ(table->entrys(), 1U);
}

TYPED_TEST(TableClear, IsTraced) {
  const auto table = this->table();
  TestSupport::TraceCapture traces("*KelpSwTable/8");
  table->clearTable(true);
  ASSERT_EQ(traces.lines().size(), 2U);
  EXPECT_EQ(traces.lines()[0].text, "");
  EXPECT_EQ(traces.lines()[1].text, " releaseResources: true, neededEntry:{} ");
}

TYPED_TEST(TableClear, TheHandleOfARemoveAllStandsInTheLogAtItsVersion) {
  const auto table = this->table();
  this->commit(table, 1);
  this->commit(table, 2);
  int responses = 0;
  table->entryRemoveAllWithResponseHandler(nullptr, [&](const auto&) { ++responses; });
  const auto handle = this->queuedHandle(*table);
  EXPECT_EQ(handle->entryState(), Asic::EntryState::entryStateUnresolved);
  EXPECT_EQ(this->pass(), 1U);
  EXPECT_EQ(handle->entryState(), Asic::EntryState::entryStateInLog);
  EXPECT_EQ(handle->logVersion().value, 3U);
  EXPECT_EQ(this->lastFlags(), 2);
  EXPECT_EQ(this->intf()->entryLog()->tableVersion().value, 3U);
  EXPECT_EQ(table->stats()->tableClearCnt(), 1U);
  EXPECT_EQ(responses, 0);
  EXPECT_EQ(table->entryHandleInLogBack()->logVersion().value, 2U) << "it waits in no queue";
  EXPECT_TRUE(table->hasPendingHwWrites());
  this->report(3);
  EXPECT_EQ(responses, 0);
  EXPECT_EQ(handle->entryState(), Asic::EntryState::entryStateInLog) << "no report ends it";
  EXPECT_FALSE(table->hasPendingHwWrites());
  EXPECT_EQ(this->intf()->entryLog()->entrysInDeletion(this->unit0), 0U);
}

TYPED_TEST(TableClear, ARemoveAllOfAnEmptyCollectionLogsNothing) {
  const auto table = this->table();
  table->entryRemoveAll(nullptr);
  const auto handle = this->queuedHandle(*table);
  EXPECT_TRUE(table->transientRemoveAllVersion().valid());
  EXPECT_EQ(this->pass(), 1U);
  EXPECT_EQ(handle->entryState(), Asic::EntryState::entryStateUnresolved);
  EXPECT_EQ(handle->logVersion().value, 0U);
  EXPECT_FALSE(table->transientRemoveAllVersion().valid());
  EXPECT_THAT(this->logVersions(), IsEmpty());
  EXPECT_EQ(table->stats()->tableClearCnt(), 0U);
  EXPECT_EQ(table->stats()->commitCnt(), 1U);
  EXPECT_FALSE(table->hasPendingHwWrites());
}

}  // namespace
