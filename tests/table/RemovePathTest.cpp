#include <gmock/gmock.h>

#include "TableTest.h"

namespace {

using Asic::EntryVersion;
using testing::ElementsAre;
using TestSupport::Events;

template <class T>
class RemovePath : public TestSupport::TableTest<T> {};
TYPED_TEST_SUITE(RemovePath, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(RemovePath, ARemoveWithNothingInFlightStartsAtVersionZero) {
  const auto table = this->table();
  TestSupport::TraceCapture traces("*KelpSwTable/8");
  const auto handle = this->remove(table, 1);
  EXPECT_TRUE(handle->version().isEq(EntryVersion{0, 0}));
  EXPECT_EQ(this->state(handle), 0U);
  ASSERT_NE(table->transientRemoveEntry(this->key(1)), nullptr);
  EXPECT_EQ(table->transientRemoveEntry(this->key(1))->entryHandle().get(), handle.get());
  EXPECT_EQ(table->stats()->entryRemoveCnt(), 1U);
  EXPECT_EQ(table->stats()->entryWriteCnt(), 0U);
  EXPECT_TRUE(traces.has(8, " Key: " + this->text(1) + " not found in entry version collection"));
}

TYPED_TEST(RemovePath, ARemoveCarriesItsKeyAndNoPayload) {
  const auto table = this->table();
  this->remove(table, 1);
  typename TestFixture::Entry blank;
  blank.logEntry.key = this->key(1);
  EXPECT_TRUE(table->transientRemoveEntry(this->key(1))->entry().isEq(blank));
  EXPECT_EQ(static_cast<unsigned>(table->resolverQueue().front()->flags()), 1U);
  EXPECT_TRUE(table->resolverQueue().front()->isEntryDeleted());
  EXPECT_FALSE(table->resolverQueue().front()->isTableDeleted());
}

TYPED_TEST(RemovePath, ARemoveAfterAWriteOfTheKeyIsTheNewest) {
  const auto table = this->table();
  this->write(table, 1);
  const auto removal = this->remove(table, 1);
  EXPECT_TRUE(removal->version().isEq(EntryVersion{1, 0}));
  EXPECT_EQ(table->transientAddEntry(this->key(1)), nullptr);
  EXPECT_NE(table->transientRemoveEntry(this->key(1)), nullptr);
  EXPECT_EQ(table->resolverQueue().size(), 2U);
}

TYPED_TEST(RemovePath, OfTwoRemovesInFlightTheSecondIsTheNewest) {
  const auto table = this->table();
  const auto first = this->remove(table, 1);
  const auto second = this->remove(table, 1);
  EXPECT_TRUE(first->version().isEq(EntryVersion{0, 0}));
  EXPECT_TRUE(second->version().isEq(EntryVersion{1, 0}));
  EXPECT_EQ(table->transientRemoveEntry(this->key(1))->entryHandle().get(), second.get());
  EXPECT_EQ(table->stats()->entryRemoveCnt(), 2U);
  EXPECT_EQ(table->resolverQueue().size(), 2U);
}

TYPED_TEST(RemovePath, ARemoveLeavesTheMarksAlone) {
  const auto table = this->table();
  table->mark();
  this->write(table, 1);
  this->remove(table, 1);
  this->remove(table, 2);
  EXPECT_NE(table->markedKey()[this->key(1)], nullptr);
  EXPECT_EQ(table->markedKey().size(), 1U);
  table->entryRemoveAll(nullptr);
  EXPECT_EQ(table->markedKey().size(), 1U);
}

TYPED_TEST(RemovePath, TheStepsOfAcceptanceComeInOrder) {
  const auto table = this->table();
  const auto resolver = this->group()->groupResolver();
  this->write(table, 1);
  this->intf()->swTableStatus()->pendingHwWritesIs(false);
  Events events;
  resolver->wakeUpIs([&] {
    events.push_back(fmt::format("woken with {} queued and {} removed",
                                 table->resolverQueue().size(), table->stats()->entryRemoveCnt()));
  });
  const TestSupport::TableWatch<TypeParam> tableWatch(table, events);
  const TestSupport::StatusWatch statusWatch(this->intf()->swTableStatus(), events);
  const TestSupport::TraceWatch<TypeParam> traces("*KelpSwTable/2", events);
  const std::uint64_t gen = resolver->genId();
  this->remove(table, 1);
  resolver->wakeUpIs(nullptr);
  const std::string key = this->text(1);
  EXPECT_THAT(events, ElementsAre("901 " + key + " was 0.0", "899 " + key + " was 0.0",
                                  "900 " + key + " was none",
                                  "SwTable 2:  Done processing remove for key: " + key + " ",
                                  "woken with 2 queued and 1 removed", "pending true"));
  EXPECT_EQ(resolver->genId(), gen + 1);
}

template <class T>
class RemoveAllPath : public TestSupport::TableTest<T> {};
TYPED_TEST_SUITE(RemoveAllPath, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(RemoveAllPath, TheFirstRemoveAllOfAFreshTableIsVersionZero) {
  const auto table = this->table();
  EXPECT_FALSE(table->transientRemoveAllVersion().valid());
  TestSupport::TraceCapture traces("*KelpSwTable/8");
  table->entryRemoveAll(nullptr);
  EXPECT_TRUE(traces.has(8, "No remove all operation currently enqueued"));
  EXPECT_TRUE(table->transientRemoveAllVersion().valid());
  EXPECT_EQ(table->transientRemoveAllVersion().value, 0U);
  EXPECT_EQ(table->stats()->entryRemoveCnt(), 0U);
}

TYPED_TEST(RemoveAllPath, TheSecondBeforeTheFirstHasCommittedIsVersionOne) {
  const auto table = this->table();
  table->entryRemoveAll(nullptr);
  TestSupport::TraceCapture traces("*KelpSwTable/8");
  table->entryRemoveAll(nullptr);
  EXPECT_TRUE(traces.has(8, "Found valid table remove all version: 0"));
  EXPECT_EQ(table->transientRemoveAllVersion().value, 1U);
  EXPECT_EQ(table->resolverQueue().size(), 2U);
  EXPECT_EQ(this->pass(), 2U);
  EXPECT_FALSE(table->transientRemoveAllVersion().valid());
}

TYPED_TEST(RemoveAllPath, ItEmptiesTheNewestOperationsAndKeepsTheirVersions) {
  const auto table = this->table();
  this->write(table, 1);
  this->write(table, 1);
  this->write(table, 2);
  this->remove(table, 3);
  table->entryRemoveAll(nullptr);
  EXPECT_TRUE(table->transientAddEntry().empty());
  EXPECT_TRUE(table->transientRemoveEntry().empty());
  EXPECT_TRUE(table->transientVersionForKey(this->key(1)).isEq(EntryVersion{1, 0}));
  EXPECT_TRUE(table->transientVersionForKey(this->key(2)).isEq(EntryVersion{0, 0}));
  EXPECT_TRUE(table->transientVersionForKey(this->key(3)).isEq(EntryVersion{0, 0}));
  EXPECT_TRUE(this->write(table, 1)->version().isEq(EntryVersion{2, 0}));
  EXPECT_TRUE(this->remove(table, 3)->version().isEq(EntryVersion{1, 0}));
}

TYPED_TEST(RemoveAllPath, ItCarriesTheDefaultKeyAndVersionZero) {
  const auto table = this->table();
  table->entryRemoveAll(nullptr);
  const auto front =
      Lumen::staticPtrCast<typename TestFixture::Resolver>(table->resolverQueue().front());
  EXPECT_EQ(static_cast<unsigned>(front->flags()), 2U);
  EXPECT_TRUE(front->isTableDeleted());
  EXPECT_FALSE(front->isEntryDeleted());
  EXPECT_TRUE(front->swTableEntry()->entry().isEq(typename TestFixture::Entry()));
  EXPECT_EQ(front->swTableEntry()->key(), typename TestFixture::Key());
  const auto handle = front->swTableEntry()->entryHandle();
  EXPECT_TRUE(handle->version().isEq(EntryVersion{0, 0}));
  EXPECT_EQ(handle->entryState(), Asic::EntryState::entryStateUnresolved);
  EXPECT_EQ(Lumen::staticPtrCast<typename TestFixture::Table::EntryHandle>(handle)->key(),
            typename TestFixture::Key());
}

TYPED_TEST(RemoveAllPath, TheStepsOfAcceptanceComeInOrder) {
  const auto table = this->table();
  const auto resolver = this->group()->groupResolver();
  this->write(table, 1);
  this->remove(table, 2);
  this->intf()->swTableStatus()->pendingHwWritesIs(false);
  Events events;
  resolver->wakeUpIs([&] {
    events.push_back(fmt::format("woken with {} queued", table->resolverQueue().size()));
  });
  {
    const TestSupport::TableWatch<TypeParam> tableWatch(table, events);
    const TestSupport::StatusWatch statusWatch(this->intf()->swTableStatus(), events);
    const TestSupport::TraceWatch<TypeParam> traces("*KelpSwTable/2", events);
    const std::uint64_t gen = resolver->genId();
    table->entryRemoveAll(nullptr);
    resolver->wakeUpIs(nullptr);
    EXPECT_EQ(resolver->genId(), gen + 1);
    EXPECT_THAT(events, ElementsAre("899 " + this->text(1) + " was 0.0",
                                    "900 " + this->text(2) + " was 0.0", "902 was invalid",
                                    "SwTable 2: Done processing remove all ", "woken with 3 queued",
                                    "pending true"));
    events.clear();
    table->entryRemoveAll(nullptr);
    EXPECT_THAT(events, ElementsAre("902 was 0", "SwTable 2: Done processing remove all "));
  }
}

TYPED_TEST(RemoveAllPath, OlderOperationsStayQueuedAndGoThroughTheLogBeforeIt) {
  const auto table = this->table();
  const auto older = this->write(table, 1);
  table->entryRemoveAll(nullptr);
  const auto newer = this->write(table, 1, 1);
  EXPECT_EQ(table->resolverQueue().size(), 3U);
  EXPECT_TRUE(TestSupport::isAsked(table->entryRead(this->key(1)), this->entry(1, 1)));
  EXPECT_EQ(this->pass(), 3U);
  EXPECT_EQ(older->logVersion().value, 1U);
  EXPECT_TRUE(this->logRecord(2).isTableDeleted());
  EXPECT_EQ(newer->logVersion().value, 3U);
  EXPECT_TRUE(TestSupport::isAsked(table->entryRead(this->key(1)), this->entry(1, 1)));
  EXPECT_FALSE(table->transientVersionForKey(this->key(1)).valid());
}

TYPED_TEST(RemoveAllPath, ItConcernsOneUnitOnly) {
  const auto table = this->table();
  const auto second = this->table(this->unit1);
  this->write(table, 1);
  this->write(second, 1);
  this->pass();
  table->entryRemoveAll(nullptr);
  EXPECT_FALSE(second->transientRemoveAllVersion().valid());
  this->pass();
  EXPECT_FALSE(table->entryHas(this->key(1)));
  EXPECT_TRUE(second->entryHas(this->key(1)));
  EXPECT_EQ(this->logRecord(3).unitId, this->unit0);
}

}  // namespace
