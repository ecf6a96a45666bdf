#include <algorithm>

#include "BriskTrace/Reader.h"
#include "BriskTrace/TraceHandle.h"
#include "LifecycleFixture.h"
#include "OrderedTable/IterStateAccessor.h"
#include "OrderedTable/OrderedSwTableAccessor.h"
#include "OrderedTable/TableLifecycle.h"

// Mark and sweep: what nobody wrote again goes, in the normal way of a remove.

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

template <class T>
class Sweep : public TestSupport::LifecycleFixture<T> {
 public:
  using Fixture = TestSupport::LifecycleFixture<T>;
  using typename Fixture::Entry;
  using typename Fixture::Table;

 protected:
  static unsigned swept(const Lumen::Ptr<Table>& table) {
    return Asic::OrderedSwTableAccessor<Table>(table.get()).sweep();
  }
  bool marked(const Lumen::Ptr<Table>& table, std::uint64_t number) {
    return table->markedKey()[this->key(number)] != nullptr;
  }
};
TYPED_TEST_SUITE(Sweep, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(Sweep, OfTwoRestoredEntriesTheOneWrittenAgainStays) {
  this->earlierRun(2);
  this->start(true);
  const auto table = this->table();
  ASSERT_TRUE(table->inMarkingState());
  this->write(table, 0);
  this->pass();
  EXPECT_EQ(this->swept(table), 1U);
  EXPECT_TRUE(table->entryHas(this->key(0)));
  EXPECT_EQ(table->transientRemoveEntry().size(), 1U);
  EXPECT_NE(table->transientRemoveEntry(this->key(1)), nullptr);
  EXPECT_FALSE(table->inMarkingState());
  EXPECT_TRUE(table->markedKey().empty());
}

TYPED_TEST(Sweep, MarkingTwiceIsOnePassInWhichTheMarksOfBothCount) {
  const auto table = this->table();
  this->writeAll(table, 0, 3);
  table->mark();
  this->write(table, 0);
  table->mark();
  this->write(table, 1);
  EXPECT_TRUE(this->marked(table, 0));
  EXPECT_TRUE(this->marked(table, 1));
  EXPECT_EQ(this->swept(table), 1U);
  EXPECT_THAT(this->view(table), ElementsAre(0, 1));
  EXPECT_EQ(this->swept(table), 0U);
  EXPECT_THAT(this->view(table), ElementsAre(0, 1));
}

TYPED_TEST(Sweep, ATableThatDoesNotMarkLosesNothingAndReportsZero) {
  const auto table = this->table();
  this->writeAll(table, 0, 3);
  table->markedKeyIs(this->key(9));
  TestSupport::TraceCapture traces("*KelpSwTable/6,8");
  table->sweep();
  ASSERT_EQ(traces.lines().size(), 2U) << "no walk";
  EXPECT_EQ(traces.lines()[0].level, 8U);
  EXPECT_EQ(traces.lines()[0].text, "");
  EXPECT_EQ(traces.lines()[1].level, 6U);
  EXPECT_EQ(traces.lines()[1].text, "Swept 0 entries");
  EXPECT_EQ(traces.lines()[1].handle, this->named("", "KelpSwTable"));
  EXPECT_THAT(this->view(table), ElementsAre(0, 1, 2));
  EXPECT_TRUE(this->marked(table, 9)) << "marks are left alone";
}

TYPED_TEST(Sweep, AKeyWrittenWhileMarkingSurvivesThoughItIsNotCommitted) {
  const auto table = this->table();
  table->mark();
  this->write(table, 1);
  EXPECT_TRUE(this->marked(table, 1));
  EXPECT_EQ(this->swept(table), 0U);
  EXPECT_NE(table->transientAddEntry(this->key(1)), nullptr);
  this->pass();
  EXPECT_THAT(this->view(table), ElementsAre(1));
}

TYPED_TEST(Sweep, AKeyInFlightSinceBeforeTheMarkIsRemoved) {
  const auto table = this->table();
  this->write(table, 1);
  this->write(table, 2);
  table->mark();
  this->write(table, 3);
  EXPECT_EQ(this->swept(table), 2U);
  EXPECT_THAT(this->view(table), ElementsAre(3));
  this->pass();
  EXPECT_THAT(this->view(table), ElementsAre(3));
  EXPECT_THAT(this->changes(), ElementsAre(this->wrote(1, 1), this->wrote(2, 2), this->wrote(3, 3),
                                           testing::_, testing::_));
}

TYPED_TEST(Sweep, AnEntryThatEqualsTheDefaultEntryEndsTheSweep) {
  using Entry = typename TestFixture::Entry;
  const auto table = this->table();
  this->writeAll(table, 0, 20);
  (void)table->entryWrite({}, Entry(), nullptr);
  this->pass();
  unsigned before = 0;
  const auto state = table->initIterState();
  while (!state->maybeUpdateCurrentEntry().isEq(Entry())) {
    ++before;
  }
  ASSERT_TRUE(state->state().valid()) << "it is the entry, not the end";
  table->mark();
  this->write(table, 150);
  EXPECT_EQ(this->swept(table), before);
  EXPECT_EQ(table->transientRemoveEntry().size(), before);
  EXPECT_EQ(table->entrys(), 22U - before) << "what would follow stays";
  EXPECT_TRUE(table->entryHas({}));
  EXPECT_FALSE(table->inMarkingState());
  EXPECT_TRUE(table->markedKey().empty());
}

TYPED_TEST(Sweep, AnEmptyTableEndsItsMarkingAndClearsTheMarks) {
  const auto table = this->table();
  table->mark();
  table->markedKeyIs(this->key(1));
  EXPECT_EQ(this->swept(table), 0U);
  EXPECT_FALSE(table->inMarkingState());
  EXPECT_TRUE(table->markedKey().empty());
}

TYPED_TEST(Sweep, AKeyRemovedWhileMarkingStaysMarkedAndIsNotMetAgain) {
  const auto table = this->table();
  this->writeAll(table, 0, 2);
  table->mark();
  this->write(table, 0);
  this->remove(table, 0);
  this->remove(table, 1);
  EXPECT_TRUE(this->marked(table, 0));
  EXPECT_FALSE(this->marked(table, 1)) << "a remove marks nothing";
  EXPECT_EQ(this->swept(table), 0U);
  EXPECT_EQ(table->transientRemoveEntry().size(), 2U);
}

TYPED_TEST(Sweep, DuringARemoveAllOnlyTheWritesInFlightAreMet) {
  const auto table = this->table();
  this->writeAll(table, 0, 10);
  table->entryRemoveAll(nullptr);
  this->write(table, 11);
  table->mark();
  this->write(table, 12);
  EXPECT_EQ(this->swept(table), 1U);
  this->pass();
  EXPECT_THAT(this->view(table), ElementsAre(12));
}

TYPED_TEST(Sweep, RemovesLeaveTheLogInTheNormalWay) {
  const auto table = this->table();
  this->writeAll(table, 0, 4);
  this->report(4);
  table->mark();
  this->write(table, 2);
  this->pass();
  table->sweep();
  EXPECT_THAT(this->changes(), IsEmpty()) << "queued, not committed";
  EXPECT_EQ(this->group()->groupResolver()->size(), 3U);
  EXPECT_EQ(table->stats()->entryRemoveCnt(), 3U);
  EXPECT_EQ(this->pass(), 3U);
  EXPECT_EQ(this->changes().size(), 3U);
  EXPECT_EQ(this->tableVersion(), 7U);
  EXPECT_TRUE(table->hasPendingHwWrites());
  this->report(7);
  EXPECT_FALSE(table->hasPendingHwWrites());
  EXPECT_THAT(this->records(), ElementsAre(this->text(2) + " at 3"));
}

TYPED_TEST(Sweep, AWriteBehindASweptRemoveBringsTheKeyBack) {
  const auto table = this->table();
  this->writeAll(table, 0, 2);
  table->mark();
  table->sweep();
  this->write(table, 1, 3);
  this->pass();
  EXPECT_TRUE(TestSupport::isAsked(table->entryRead(this->key(1)), this->entry(1, 3)));
  EXPECT_THAT(this->view(table), ElementsAre(1));
}

TYPED_TEST(Sweep, ALargeTableIsSweptInOneGo) {
  const auto table = this->table();
  this->writeAll(table, 0, 2000);
  table->mark();
  for (std::uint64_t i = 0; i < 2000; i += 2) {
    this->write(table, i);
  }
  this->pass();
  EXPECT_EQ(this->tableVersion(), 2000U);
  EXPECT_EQ(this->swept(table), 1000U);
  EXPECT_EQ(this->pass(), 1000U);
  EXPECT_EQ(table->entrys(), 1000U);
  for (std::uint64_t i = 0; i < 2000; ++i) {
    EXPECT_EQ(table->entryHas(this->key(i)), i % 2 == 0) << i;
  }
}

TYPED_TEST(Sweep, TheGroupSweepsEveryUnitsTable) {
  this->earlierRun(3);
  this->start(true);
  const auto first = this->table(this->unit0);
  const auto second = this->table(this->unit1);
  this->write(first, 0);
  this->write(second, 2);
  this->group()->sweepAll();
  this->pass();
  EXPECT_THAT(this->view(first), ElementsAre(0));
  EXPECT_THAT(this->view(second), ElementsAre(2));
}

// --- what is published and traced

TYPED_TEST(Sweep, ChangesAreToldToSubscribers) {
  const auto table = this->table();
  this->writeAll(table, 0, 1);
  TestSupport::Events events;
  const TestSupport::TableWatch<TypeParam> watch(table, events);
  table->mark();
  EXPECT_THAT(events, ElementsAre("917 was false"));
  table->mark();
  EXPECT_EQ(events.size(), 1U) << "a second mark does nothing";
  events.clear();
  table->markedKeyIs(this->key(5));
  table->markedKeyIs(this->key(5));
  EXPECT_THAT(events, ElementsAre("916 " + this->text(5)));
  events.clear();
  table->markedKeyIs(this->key(0));
  EXPECT_FALSE(table->markedKeyDel(this->key(6)));
  EXPECT_TRUE(table->markedKeyDel(this->key(5)));
  EXPECT_THAT(events, ElementsAre("916 " + this->text(0), "916 " + this->text(5)));
  table->markedKeyIs(this->key(7));
  events.clear();
  table->sweep();
  EXPECT_THAT(events, testing::UnorderedElementsAre("917 was true", "916 " + this->text(0),
                                                    "916 " + this->text(7)))
      << "each key, since somebody listens";
  EXPECT_EQ(events.front(), "917 was true");
}

TYPED_TEST(Sweep, AWriteMarksAfterItsVersionAndBeforeItIsQueued) {
  const auto table = this->table();
  table->mark();
  TestSupport::Events events;
  const TestSupport::TableWatch<TypeParam> watch(table, events);
  this->write(table, 3);
  ASSERT_GE(events.size(), 3U);
  EXPECT_TRUE(events[0].starts_with("901 ")) << events[0];
  EXPECT_EQ(events[1], "916 " + this->text(3));
  EXPECT_TRUE(events[2].starts_with("899 ")) << events[2];
}

TYPED_TEST(Sweep, MarkAndSweepAreTraced) {
  const auto table = this->table();
  this->writeAll(table, 0, 3);
  TestSupport::TraceCapture traces("*KelpSwTable/6,8");
  table->mark();
  ASSERT_EQ(traces.lines().size(), 1U);
  EXPECT_EQ(traces.lines()[0].level, 8U);
  EXPECT_EQ(traces.lines()[0].text, "");
  table->sweep();
  EXPECT_TRUE(traces.has(6, "Swept 3 entries"));
  EXPECT_EQ(traces.lines().back().text, "Swept 3 entries");
}

TYPED_TEST(Sweep, SweepAndRestoreAreReportedToTheRingBuffer) {
  this->earlierRun(3);
  this->start(true);
  const std::string file = this->root_.path() + "/agent.brisk";
  BriskTrace::TraceHandle handle(file);
  BriskTrace::defaultBriskTraceHandle = &handle;
  const auto table = this->table();
  table->sweep();
  table->sweep();
  (void)this->intf()->makeSwTable(this->unit1, nullptr, true);
  BriskTrace::defaultBriskTraceHandle = nullptr;
  std::vector<std::string> texts;
  BriskTrace::Reader reader(file);
  for (const auto& message : reader.newMessages()) {
    if (!message.text.starts_with(" ResourceTable: ")) {
      texts.push_back(message.text);
    }
  }
  EXPECT_THAT(texts, ElementsAre(this->named(" Restored 3 entries for table: ", "Kelp, unitId: 0"),
                                 "Swept 3 entries", "Swept 0 entries",
                                 this->named(" Clearing entries for table: ", "Kelp, unitId: 1")));
}

}  // namespace
