#include <gmock/gmock.h>

#include "TableTest.h"

namespace {

using Asic::EntryVersion;
using testing::ElementsAre;
using testing::IsEmpty;
using TestSupport::Events;

template <class T>
class Dependency : public TestSupport::TableTest<T> {
 protected:
  using Base = TestSupport::TableTest<T>;
  using Other = typename Base::Other;

  static Asic::TableVersion otherAt(std::uint64_t version) {
    return {Other::tableId, Asic::LogVersion{version}};
  }
  // What the entry log was told that its next change waits for, as it traces it.
  std::string neededText(const TestSupport::TraceCapture& traces) {
    for (const auto& line : traces.lines()) {
      const auto from = line.text.find("neededEntry:");
      const auto to = line.text.find('}', from);
      if (from != std::string::npos && to != std::string::npos) {
        const auto open = line.text.find('{', from);
        return line.text.substr(open, to - open + 1);
      }
    }
    return "none";
  }
};
TYPED_TEST_SUITE(Dependency, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(Dependency, AnUnresolvedOneHoldsTheEntryBack) {
  const auto table = this->table();
  const auto gate = this->handleIn(table, 0);
  const auto handle = table->entryWrite(this->key(1), this->entry(1), gate);
  TestSupport::TraceCapture traces("*KelpSwTable/1-3");
  EXPECT_EQ(this->pass(), 0U);
  EXPECT_TRUE(traces.has(3, "key: " + this->text(1) + " dependant entry not yet resolved"));
  EXPECT_EQ(this->state(handle), 0U);
  traces.clear();
  gate->entryStateIs(Asic::EntryState::entryStateInLog);
  EXPECT_EQ(this->pass(), 0U) << "nobody said that an answer may have changed";
  this->group()->groupResolver()->updateGenId();
  EXPECT_EQ(this->pass(), 1U);
  EXPECT_TRUE(traces.has(3, "key: " + this->text(1) + " dependant entry is resolved"));
}

TYPED_TEST(Dependency, EveryStateButUnresolvedEndsTheWait) {
  const auto table = this->table();
  for (const unsigned state : {1U, 2U, 3U, 4U, 5U, 6U}) {
    (void)table->entryWrite(this->key(state), this->entry(state), this->handleIn(table, state));
    EXPECT_TRUE(table->resolverQueue().front()->isResolved()) << state;
    EXPECT_EQ(this->pass(), 1U);
  }
  (void)table->entryWrite(this->key(0), this->entry(0), this->handleIn(table, 0));
  EXPECT_FALSE(table->resolverQueue().front()->isResolved());
}

TYPED_TEST(Dependency, AnEntryInTheLogOfAnotherTableIsWaitedForByTheHardwareSide) {
  const auto table = this->table();
  const auto on = this->writeOther(1);
  const auto handle = table->entryWrite(this->key(1), this->entry(1), on);
  EXPECT_EQ(this->pass(), 2U);
  EXPECT_EQ(static_cast<unsigned>(on->entryState()), 1U);
  EXPECT_EQ(this->state(handle), 1U);
  EXPECT_THAT(this->needed(1), ElementsAre(this->otherAt(1)));
}

TYPED_TEST(Dependency, TheDependantComesAfterWhatItDependsOnWhateverTheirOrderInTheQueue) {
  const auto table = this->table();
  const auto gate = this->handleIn(table, 0);
  const auto on = this->writeOther(1, gate);
  const auto handle = table->entryWrite(this->key(1), this->entry(1), on);
  EXPECT_EQ(this->pass(), 0U);
  gate->entryStateIs(Asic::EntryState::entryStateSuccess);
  this->group()->groupResolver()->updateGenId();
  EXPECT_EQ(this->pass(), 2U);
  EXPECT_EQ(this->state(handle), 1U);
  EXPECT_THAT(this->needed(1), ElementsAre(this->otherAt(1)));
}

TYPED_TEST(Dependency, AnEntryOfTheSameTableIsMetByOrder) {
  const auto table = this->table();
  const auto on = this->write(table, 1);
  const auto handle = table->entryWrite(this->key(2), this->entry(2), on);
  std::string seen;
  {
    this->group()->groupResolver()->updateGenId();
    TestSupport::TraceCapture traces("*KelpEntryLog/8");
    EXPECT_EQ(this->pass(), 2U);
    TestSupport::TraceCapture::Line last;
    for (const auto& line : traces.lines()) {
      last = line;
    }
    seen = last.text;
  }
  EXPECT_THAT(seen, testing::HasSubstr(
                        fmt::format("neededEntry: {{{}@1}} version: 2", TypeParam::tableId)));
  EXPECT_EQ(handle->logVersion().value, 2U);
  EXPECT_THAT(this->needed(2), IsEmpty());
}

TYPED_TEST(Dependency, AFinishedOneIsStillNamedToTheLog) {
  const auto table = this->table();
  const auto on = this->writeOther(1);
  this->pass();
  this->other()->tableStatusVersion(Asic::LogVersion{1});
  ASSERT_EQ(static_cast<unsigned>(on->entryState()), 4U);
  (void)table->entryWrite(this->key(1), this->entry(1), on);
  TestSupport::TraceCapture traces("*KelpEntryLog/8");
  EXPECT_EQ(this->pass(), 1U);
  EXPECT_EQ(this->neededText(traces), fmt::format("{{{}@1}}", TestFixture::Other::tableId));
}

TYPED_TEST(Dependency, ARemoveAndARemoveAllNameTheirs) {
  const auto table = this->table();
  this->commit(table, 1);
  this->commit(table, 2);
  const auto first = this->writeOther(1);
  (void)table->entryRemove(this->key(1), first);
  const auto second = this->writeOther(2);
  table->entryRemoveAll(second);
  EXPECT_EQ(this->pass(), 4U);
  EXPECT_TRUE(this->logRecord(3).isEntryDeleted());
  EXPECT_THAT(this->needed(3), ElementsAre(this->otherAt(1)));
  EXPECT_TRUE(this->logRecord(4).isTableDeleted());
  EXPECT_THAT(this->needed(4), ElementsAre(this->otherAt(2)));
}

TYPED_TEST(Dependency, WithoutOneNothingIsWaitedFor) {
  const auto table = this->table();
  (void)this->writeOther(1);
  this->write(table, 1);
  this->pass();
  EXPECT_THAT(this->needed(1), IsEmpty());
}

TYPED_TEST(Dependency, AFailedOneFailsTheWriteWhichStaysInTransientState) {
  const auto table = this->table();
  for (const unsigned failure : {3U, 5U, 6U}) {
    const auto key = this->key(failure);
    std::vector<unsigned> states;
    const auto handle = table->entryWriteWithResponseHandler(
        key, this->entry(failure), this->handleIn(table, failure),
        [&](const auto& each) { states.push_back(TestFixture::state(each)); });
    Events events;
    {
      const TestSupport::TraceWatch<TypeParam> traces("*KelpSwTable/1", events);
      EXPECT_EQ(this->pass(), 1U);
    }
    EXPECT_THAT(events,
                ElementsAre("SwTable 1: Failed dependent entry for key: " + this->text(failure),
                            "SwTable 1: Failed to commit entry key: " + this->text(failure)));
    EXPECT_EQ(this->state(handle), 5U);
    EXPECT_THAT(states, ElementsAre(5));
    ASSERT_NE(table->transientAddEntry(key), nullptr);
    EXPECT_EQ(table->transientAddEntry(key)->entryHandle().get(), handle.get());
    EXPECT_TRUE(table->transientVersionForKey(key).isEq(EntryVersion{0, 0}));
  }
  EXPECT_EQ(this->tableVersion(), 0U);
  EXPECT_EQ(table->stats()->commitCnt(), 3U);
  EXPECT_GT(table->stats()->lastCommitTime(), 0.0);
  EXPECT_EQ(table->entryHandleInLogFront(), nullptr);
  EXPECT_TRUE(table->hasPendingHwWrites());
}

TYPED_TEST(Dependency, AFailureOfAnotherTableReachesItsDependantAndThoseOfThat) {
  const auto table = this->table();
  const auto on = this->writeOther(1, this->handleIn(table, 5));
  const auto handle = table->entryWrite(this->key(1), this->entry(1), on);
  const auto further = table->entryWrite(this->key(2), this->entry(2), handle);
  EXPECT_EQ(this->pass(), 3U);
  EXPECT_EQ(static_cast<unsigned>(on->entryState()), 5U);
  EXPECT_EQ(this->state(handle), 5U);
  EXPECT_EQ(this->state(further), 5U);
}

TYPED_TEST(Dependency, AFailedOneCallsNoHook) {
  class Hooks final : public TestFixture::Table::Helper {
   public:
    void finalizeOnSuccess(const Lumen::Ptr<typename TestFixture::Table::Wrapper>&, bool,
                           const Lumen::Ptr<typename TestFixture::Table>&) override {
      ++calls;
    }
    bool finalizeOnFailure(const Lumen::Ptr<typename TestFixture::Table::Wrapper>&, bool,
                           const Lumen::Ptr<typename TestFixture::Table>&) override {
      ++calls;
      return true;
    }
    int calls = 0;
  };
  const auto table = this->table();
  const auto helper = Lumen::makeNode<Hooks>();
  table->swTableHelperIs(helper);
  (void)table->entryWrite(this->key(1), this->entry(1), this->handleIn(table, 5));
  (void)table->entryRemove(this->key(2), this->handleIn(table, 5));
  table->entryRemoveAll(this->handleIn(table, 5));
  this->pass();
  EXPECT_EQ(helper->calls, 0);
  EXPECT_EQ(table->stats()->resolveFailCnt(), 0U);
}

TYPED_TEST(Dependency, AWriteStuckInTransientStateLeavesWithTheNextOperationOnItsKey) {
  const auto table = this->table();
  (void)table->entryWrite(this->key(1), this->entry(1, 0), this->handleIn(table, 5));
  (void)table->entryWrite(this->key(2), this->entry(2, 0), this->handleIn(table, 5));
  this->pass();
  EXPECT_TRUE(TestSupport::isAsked(table->entryRead(this->key(1)), this->entry(1, 0)))
      << "the newest operation";
  const auto write = this->write(table, 1, 1);
  EXPECT_TRUE(write->version().isEq(EntryVersion{1, 0}));
  const auto removal = this->remove(table, 2);
  EXPECT_TRUE(removal->version().isEq(EntryVersion{1, 0}));
  this->pass();
  EXPECT_TRUE(table->transientAddEntry().empty());
  EXPECT_TRUE(table->transientRemoveEntry().empty());
  EXPECT_TRUE(table->transientVersionForKey().empty());
  EXPECT_EQ(this->state(write), 1U);
  EXPECT_EQ(this->state(removal), 4U);
  this->report(1);
  EXPECT_FALSE(table->hasPendingHwWrites());
}

TYPED_TEST(Dependency, AFailedRemoveStaysInTransientStateAndTheEntryInTheLog) {
  const auto table = this->table();
  this->commit(table, 1);
  int calls = 0;
  const auto handle = table->entryRemoveWithResponseHandler(this->key(1), this->handleIn(table, 5),
                                                            [&](const auto&) { ++calls; });
  this->pass();
  EXPECT_EQ(this->state(handle), 5U);
  EXPECT_EQ(calls, 1);
  EXPECT_NE(table->transientRemoveEntry(this->key(1)), nullptr);
  EXPECT_TRUE(table->transientVersionForKey(this->key(1)).isEq(EntryVersion{0, 0}));
  EXPECT_TRUE(this->log()->entryHas(this->key(1), this->unit0));
  EXPECT_FALSE(table->entryHas(this->key(1)));
  EXPECT_TRUE(table->hasPendingHwWrites());
}

TYPED_TEST(Dependency, AFailedRemoveAllKeepsItsCountAndTellsItsHandler) {
  const auto table = this->table();
  this->commit(table, 1);
  std::vector<unsigned> states;
  table->entryRemoveAllWithResponseHandler(this->handleIn(table, 5), [&](const auto& handle) {
    states.push_back(TestFixture::state(handle));
  });
  Events events;
  {
    const TestSupport::TraceWatch<TypeParam> traces("*KelpSwTable/1", events);
    this->pass();
  }
  EXPECT_THAT(events, ElementsAre("SwTable 1: Failed dependent entry for remove all",
                                  "SwTable 1: Failed to commit entry remove all operation"));
  EXPECT_THAT(states, ElementsAre(5));
  EXPECT_EQ(table->transientRemoveAllVersion().value, 0U);
  EXPECT_TRUE(this->log()->entryHas(this->key(1), this->unit0));
  EXPECT_EQ(table->stats()->tableClearCnt(), 0U);
  this->report(1);
  EXPECT_TRUE(table->hasPendingHwWrites()) << "for good";
}

TYPED_TEST(Dependency, TheHandleKeepsItsTableVersionForThoseThatComeLater) {
  const auto table = this->table();
  const auto handle = this->write(table, 1);
  this->pass();
  EXPECT_TRUE(handle->entryTableVersion() ==
              (Asic::TableVersion{TypeParam::tableId, Asic::LogVersion{1}}));
}

}  // namespace
