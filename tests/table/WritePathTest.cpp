#include <gmock/gmock.h>

#include "TableTest.h"

namespace {

using Asic::EntryVersion;
using testing::ElementsAre;
using TestSupport::Events;

template <class T>
class WritePath : public TestSupport::TableTest<T> {};
TYPED_TEST_SUITE(WritePath, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(WritePath, TwoWritesOfOneKeyAreBothInFlightAndTheSecondIsTheNewest) {
  const auto table = this->table();
  const auto first = this->write(table, 1, 0);
  const auto second = this->write(table, 1, 1);
  EXPECT_TRUE(first->version().isEq(EntryVersion{0, 0}));
  EXPECT_TRUE(second->version().isEq(EntryVersion{1, 0}));
  ASSERT_NE(table->transientAddEntry(this->key(1)), nullptr);
  EXPECT_EQ(table->transientAddEntry(this->key(1))->entryHandle().get(), second.get());
  EXPECT_TRUE(
      TestSupport::isAsked(table->transientAddEntry(this->key(1))->entry(), this->entry(1, 1)));
  EXPECT_TRUE(table->transientVersionForKey(this->key(1)).isEq(EntryVersion{1, 0}));
  EXPECT_EQ(table->resolverQueue().size(), 2U);
  EXPECT_EQ(table->stats()->entryWriteCnt(), 2U);
  EXPECT_EQ(table->stats()->entryRemoveCnt(), 0U);
  EXPECT_EQ(table->stats()->commitCnt(), 0U);
}

TYPED_TEST(WritePath, TheHandleTellsWhatWasWrittenAndThatNothingIsDecided) {
  const auto table = this->table();
  const auto handle = table->entryWrite(this->key(1), this->entry(1), nullptr);
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(handle->entryState(), Asic::EntryState::entryStateUnresolved);
  EXPECT_EQ(handle->key(), this->key(1));
  EXPECT_EQ(handle->logVersion().value, 0U);
  EXPECT_EQ(handle->tableId(), TypeParam::tableId);
  EXPECT_EQ(handle->tableName(), std::string(TypeParam::name.view()) + "Kelp");
  EXPECT_TRUE(handle->entryTableVersion() ==
              (Asic::TableVersion{TypeParam::tableId, Asic::LogVersion{0}}));
  EXPECT_FALSE(handle->responseHandler());
}

TYPED_TEST(WritePath, AKeyThatHasLeftTheTransientStateStartsAgain) {
  const auto table = this->table();
  EXPECT_TRUE(this->write(table, 1)->version().isEq(EntryVersion{0, 0}));
  this->pass();
  EXPECT_FALSE(table->transientVersionForKey(this->key(1)).valid());
  EXPECT_TRUE(this->write(table, 1)->version().isEq(EntryVersion{0, 0}));
  EXPECT_TRUE(this->write(table, 1)->version().isEq(EntryVersion{1, 0}));
  EXPECT_TRUE(this->write(table, 2)->version().isEq(EntryVersion{0, 0}));
}

TYPED_TEST(WritePath, TheMinorVersionIsCarriedAlong) {
  const auto table = this->table();
  table->transientVersionForKeyIs(this->key(1), EntryVersion{6, 9});
  EXPECT_TRUE(this->write(table, 1)->version().isEq(EntryVersion{7, 9}));
  EXPECT_TRUE(this->remove(table, 1)->version().isEq(EntryVersion{8, 9}));
}

TYPED_TEST(WritePath, AWriteWhileMarkingMarksItsKeyAndMayBeSuppressed) {
  const auto table = this->table();
  this->write(table, 1);
  EXPECT_EQ(static_cast<unsigned>(table->resolverQueue().front()->flags()), 0U);
  EXPECT_TRUE(table->markedKey().empty());
  this->pass();
  table->mark();
  EXPECT_TRUE(table->inMarkingState());
  this->write(table, 2);
  EXPECT_EQ(static_cast<unsigned>(table->resolverQueue().front()->flags()), 4U);
  EXPECT_NE(table->markedKey()[this->key(2)], nullptr);
  EXPECT_EQ(table->markedKey().size(), 1U);
}

TYPED_TEST(WritePath, AWriteAfterARemoveOfTheKeyIsTheNewest) {
  const auto table = this->table();
  const auto removal = this->remove(table, 1);
  const auto write = this->write(table, 1);
  EXPECT_EQ(table->transientRemoveEntry(this->key(1)), nullptr);
  ASSERT_NE(table->transientAddEntry(this->key(1)), nullptr);
  EXPECT_EQ(table->transientAddEntry(this->key(1))->entryHandle().get(), write.get());
  EXPECT_TRUE(removal->version().isEq(EntryVersion{0, 0}));
  EXPECT_TRUE(write->version().isEq(EntryVersion{1, 0}));
  EXPECT_EQ(table->resolverQueue().size(), 2U);
}

TYPED_TEST(WritePath, TheKeyArgumentWinsOverTheKeyInTheEntry) {
  const auto table = this->table();
  const auto handle = table->entryWrite(this->key(1), this->entry(2), nullptr);
  EXPECT_EQ(handle->key(), this->key(1));
  ASSERT_NE(table->transientAddEntry(this->key(1)), nullptr);
  EXPECT_EQ(table->transientAddEntry(this->key(1))->key(), this->key(1));
  EXPECT_EQ(table->transientAddEntry(this->key(2)), nullptr);
  this->pass();
  EXPECT_TRUE(table->entryHas(this->key(1)));
  EXPECT_FALSE(table->entryHas(this->key(2)));
  EXPECT_TRUE(TestSupport::isAsked(table->entryRead(this->key(1)), this->entry(1)));
  EXPECT_EQ(this->logRecord(1).logEntry.key, this->key(1));
}

TYPED_TEST(WritePath, NothingOfAWriteTouchesTheLogBeforeItsCommit) {
  const auto table = this->table();
  this->write(table, 1);
  EXPECT_EQ(this->tableVersion(), 0U);
  EXPECT_EQ(this->changeLog().size(), 0U);
  EXPECT_EQ(this->log()->tableConfigQuilt(this->unit0)->swTableEntries().size(), 0U);
  EXPECT_EQ(this->log()->tableEntryLog()->collectionControl()->announced(), 0U);
  EXPECT_EQ(this->log()->tableEntryLog()->collectionControl()->published(), 0U);
}

TYPED_TEST(WritePath, TheStepsOfAcceptanceComeInOrder) {
  const auto table = this->table();
  const auto resolver = this->group()->groupResolver();
  this->remove(table, 1);
  table->mark();
  this->intf()->swTableStatus()->pendingHwWritesIs(false);
  Events events;
  resolver->wakeUpIs([&] {
    events.push_back(fmt::format("woken with {} queued and {} written",
                                 table->resolverQueue().size(), table->stats()->entryWriteCnt()));
  });
  const TestSupport::TableWatch<TypeParam> tableWatch(table, events);
  const TestSupport::StatusWatch statusWatch(this->intf()->swTableStatus(), events);
  const TestSupport::TraceWatch<TypeParam> traces("*KelpSwTable/2", events);
  const std::uint64_t gen = resolver->genId();
  this->write(table, 1);
  resolver->wakeUpIs(nullptr);
  const std::string key = this->text(1);
  EXPECT_THAT(events, ElementsAre("901 " + key + " was 0.0", "916 " + key,
                                  "900 " + key + " was 0.0", "899 " + key + " was none",
                                  "SwTable 2: Done processing write for key: " + key + " ",
                                  "woken with 2 queued and 1 written", "pending true"));
  EXPECT_EQ(resolver->genId(), gen + 1);
}

TYPED_TEST(WritePath, TheResponseHandlerIsKeptInTheHandleAndNotCalledAtAcceptance) {
  const auto table = this->table();
  int calls = 0;
  const auto handle = table->entryWriteWithResponseHandler(this->key(1), this->entry(1), nullptr,
                                                           [&](const auto&) { ++calls; });
  EXPECT_EQ(calls, 0);
  EXPECT_TRUE(handle->responseHandler());
}

TYPED_TEST(WritePath, AnOvertakenWriteKeepsItsOwnWrapperAndHandle) {
  const auto table = this->table();
  this->write(table, 1, 0);
  const auto first = table->transientAddEntry(this->key(1));
  this->write(table, 1, 1);
  this->remove(table, 1);
  EXPECT_EQ(table->transientAddEntry(this->key(1)), nullptr);
  const auto front =
      Lumen::staticPtrCast<typename TestFixture::Resolver>(table->resolverQueue().front());
  EXPECT_EQ(front->swTableEntry(), first);
  EXPECT_EQ(front->swTable(), table.get());
  EXPECT_TRUE(TestSupport::isAsked(first->entry(), this->entry(1, 0)));
}

TYPED_TEST(WritePath, AWriteOfOneUnitIsNotInFlightInAnother) {
  const auto table = this->table();
  const auto second = this->table(this->unit1);
  EXPECT_NE(table, second);
  this->write(table, 1);
  EXPECT_NE(table->transientAddEntry(this->key(1)), nullptr);
  EXPECT_EQ(second->transientAddEntry(this->key(1)), nullptr);
  EXPECT_EQ(second->stats()->entryWriteCnt(), 0U);
  EXPECT_EQ(second->resolverQueue().size(), 0U);
}

}  // namespace
