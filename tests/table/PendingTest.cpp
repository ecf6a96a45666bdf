#include <gmock/gmock.h>

#include "TableTest.h"

namespace {

template <class T>
class PendingHwWrites : public TestSupport::TableTest<T> {};
TYPED_TEST_SUITE(PendingHwWrites, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(PendingHwWrites, AFreshTableHasNone) {
  const auto table = this->table();
  EXPECT_EQ(this->log()->tableVersion().value, 0U);
  EXPECT_EQ(this->log()->lastCleanedVersion().value, 0U);
  EXPECT_FALSE(table->hasPendingHwWrites());
  EXPECT_FALSE(this->intf()->swTableStatus()->pendingHwWrites());
}

TYPED_TEST(PendingHwWrites, AWriteIsPendingFromItsAcceptanceToTheReport) {
  const auto table = this->table();
  const auto status = this->intf()->swTableStatus();
  this->write(table, 1);
  EXPECT_TRUE(table->hasPendingHwWrites());
  EXPECT_TRUE(status->pendingHwWrites());
  EXPECT_EQ(this->tableVersion(), 0U) << "through the transient state";
  this->pass();
  EXPECT_TRUE(table->transientAddEntry().empty());
  EXPECT_TRUE(table->hasPendingHwWrites()) << "through the log versions";
  EXPECT_TRUE(status->pendingHwWrites());
  this->report(1);
  EXPECT_FALSE(table->hasPendingHwWrites());
  EXPECT_FALSE(status->pendingHwWrites());
}

TYPED_TEST(PendingHwWrites, ARemoveIsPendingFromItsAcceptanceToTheReport) {
  const auto table = this->table();
  this->commit(table, 1);
  this->report(1);
  this->remove(table, 1);
  EXPECT_TRUE(table->hasPendingHwWrites());
  this->pass();
  EXPECT_TRUE(table->transientRemoveEntry().empty());
  EXPECT_TRUE(table->hasPendingHwWrites());
  this->report(2);
  EXPECT_FALSE(table->hasPendingHwWrites());
}

TYPED_TEST(PendingHwWrites, ARemoveAllIsPendingFromItsAcceptanceToTheReport) {
  const auto table = this->table();
  this->commit(table, 1);
  this->report(1);
  table->entryRemoveAll(nullptr);
  EXPECT_TRUE(table->transientAddEntry().empty() && table->transientRemoveEntry().empty());
  EXPECT_TRUE(table->hasPendingHwWrites()) << "through its version";
  this->pass();
  EXPECT_TRUE(table->hasPendingHwWrites());
  this->report(2);
  EXPECT_FALSE(table->hasPendingHwWrites());
}

TYPED_TEST(PendingHwWrites, ARestoredVersionIsPendingUntilACleanup) {
  {
    const auto table = this->table();
    for (std::uint64_t i = 0; i < 9; ++i) {
      this->commit(table, i);
    }
    // The hardware side has nothing left to take; nobody keeps its report.
    table->tableStatusVersion(Asic::LogVersion{9});
    EXPECT_FALSE(table->hasPendingHwWrites());
    EXPECT_EQ(this->changeLog().size(), 0U);
  }
  this->restart();
  const auto table = this->table();
  EXPECT_EQ(this->tableVersion(), 9U);
  EXPECT_EQ(this->log()->lastCleanedVersion().value, 0U);
  EXPECT_EQ(this->changeLog().size(), 0U);
  EXPECT_TRUE(table->hasPendingHwWrites());
  this->report(9);
  EXPECT_FALSE(table->hasPendingHwWrites());
}

TYPED_TEST(PendingHwWrites, AWriteStuckAfterAFailedDependencyIsPendingUntilItIsSuperseded) {
  const auto table = this->table();
  (void)table->entryWrite(this->key(1), this->entry(1), this->handleIn(table, 5));
  this->pass();
  EXPECT_TRUE(table->hasPendingHwWrites());
  this->commit(table, 2);
  this->report(1);
  EXPECT_TRUE(table->hasPendingHwWrites()) << "of another key";
  EXPECT_TRUE(this->intf()->swTableStatus()->pendingHwWrites());
  this->commit(table, 1);
  this->report(2);
  EXPECT_FALSE(table->hasPendingHwWrites());
  EXPECT_FALSE(this->intf()->swTableStatus()->pendingHwWrites());
}

TYPED_TEST(PendingHwWrites, AFailedRemoveAllIsPendingForGood) {
  const auto table = this->table();
  table->entryRemoveAll(this->handleIn(table, 5));
  this->pass();
  EXPECT_TRUE(table->transientRemoveAllVersion().valid());
  EXPECT_TRUE(table->hasPendingHwWrites());
  this->commit(table, 1);
  table->entryRemoveAll(nullptr);
  this->pass();
  this->report(this->tableVersion());
  EXPECT_TRUE(table->hasPendingHwWrites());
}

TYPED_TEST(PendingHwWrites, AVersionThatARemoveAllLeftBehindDoesNotCount) {
  const auto table = this->table();
  this->write(table, 1);
  table->entryRemoveAll(nullptr);
  this->pass();
  this->report(2);
  EXPECT_TRUE(table->transientVersionForKey(this->key(1)).valid());
  EXPECT_FALSE(table->hasPendingHwWrites());
}

TYPED_TEST(PendingHwWrites, TheQueueOfHandlesIsNotAsked) {
  const auto table = this->table();
  table->entryHandleInLogEnq(this->handleIn(table, 1, 5));
  EXPECT_FALSE(table->hasPendingHwWrites());
}

TYPED_TEST(PendingHwWrites, AMarkAboveTheTableVersionCounts) {
  const auto table = this->table();
  table->tableStatusVersion(Asic::LogVersion{3});
  EXPECT_TRUE(table->hasPendingHwWrites());
}

TYPED_TEST(PendingHwWrites, TheFlagOfTheTableIsThatOfAnyOfItsUnits) {
  const auto table = this->table();
  const auto second = this->table(this->unit1);
  const auto status = this->intf()->swTableStatus();
  this->write(second, 1);
  EXPECT_FALSE(table->hasPendingHwWrites());
  EXPECT_TRUE(second->hasPendingHwWrites());
  EXPECT_TRUE(status->pendingHwWrites());
  this->pass();
  this->report(1);
  EXPECT_FALSE(status->pendingHwWrites());
}

TYPED_TEST(PendingHwWrites, TheAnswerIsTraced) {
  const auto table = this->table(this->unit1);
  TestSupport::Events events;
  {
    const TestSupport::TraceWatch<TypeParam> traces("*KelpSwTable/*", events);
    EXPECT_FALSE(table->hasPendingHwWrites());
  }
  EXPECT_THAT(
      events,
      testing::ElementsAre(
          "SwTable 8: ",
          fmt::format("SwTable 3:  pendingHwWrites for swTable: tableId: {}, unitId1 is false",
                      TypeParam::tableId)));
}

}  // namespace
