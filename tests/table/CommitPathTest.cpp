#include <gmock/gmock.h>

#include "Brio/System.h"
#include "TableTest.h"

namespace {

using Asic::EntryVersion;
using testing::ElementsAre;
using TestSupport::Events;

template <class T>
class CommitPath : public TestSupport::TableTest<T> {
 protected:
  using Table = typename TestSupport::TableTest<T>::Table;

  // Has a hook and a handler write into the events.
  class Hooks final : public Table::Helper {
   public:
    explicit Hooks(Events& events) : events_(events) {}
    void finalizeOnSuccess(const Lumen::Ptr<typename Table::Wrapper>&, bool isDelete,
                           const Lumen::Ptr<Table>& table) override {
      events_.push_back(fmt::format("hook {} at {}", isDelete ? "remove" : "write",
                                    table->entryLog()->tableVersion()));
    }

   private:
    Events& events_;
  };

  typename Table::ResponseHandler handler(Events& events) {
    return [&events](const Lumen::Ptr<const Asic::OrderedSwTable::EntryHandle>& handle) {
      events.push_back(fmt::format("handler {}", static_cast<unsigned>(handle->entryState())));
    };
  }
};
TYPED_TEST_SUITE(CommitPath, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(CommitPath, TheStepsOfAWriteComeInOrder) {
  const auto table = this->table();
  Events events;
  table->swTableHelperIs(Lumen::makeNode<typename TestFixture::Hooks>(events));
  const auto handle = table->entryWriteWithResponseHandler(this->key(1), this->entry(1), nullptr,
                                                           this->handler(events));
  {
    const TestSupport::TableWatch<TypeParam> tableWatch(table, events);
    const TestSupport::HandleWatch handleWatch(handle, events);
    const TestSupport::TraceWatch<TypeParam> traces("*KelpEntryLog/8", events);
    this->pass();
  }
  const std::string key = this->text(1);
  ASSERT_EQ(events.size(), 6U) << testing::PrintToString(events);
  EXPECT_EQ(events[0], "hook write at 0");
  EXPECT_EQ(events[1], "899 " + key + " was 0.0");
  EXPECT_EQ(events[2], "901 " + key + " was 0.0");
  // The previous entry is read, and then the log written.
  EXPECT_THAT(events[3], testing::StartsWith("EntryLog 8:  logEntry: "));
  EXPECT_EQ(events[4], "state 1 at 1");
  EXPECT_EQ(events[5], "907 enq 1");
  EXPECT_EQ(table->stats()->commitCnt(), 1U);
  EXPECT_EQ(table->stats()->resolveFailCnt(), 0U);
}

TYPED_TEST(CommitPath, TheStepsOfARemoveComeInOrder) {
  const auto table = this->table();
  this->commit(table, 1);
  Events events;
  table->swTableHelperIs(Lumen::makeNode<typename TestFixture::Hooks>(events));
  const auto handle =
      table->entryRemoveWithResponseHandler(this->key(1), nullptr, this->handler(events));
  {
    const TestSupport::TableWatch<TypeParam> tableWatch(table, events);
    const TestSupport::HandleWatch handleWatch(handle, events);
    const TestSupport::TraceWatch<TypeParam> traces("*KelpEntryLog/8", events);
    this->pass();
  }
  const std::string key = this->text(1);
  EXPECT_THAT(events,
              ElementsAre("900 " + key + " was 0.0", "901 " + key + " was 0.0", "hook remove at 1",
                          "EntryLog 8:  key:" + key + " neededEntry: {} unitId: 0", "state 1 at 2",
                          "907 enq 2"));
  EXPECT_EQ(table->stats()->commitCnt(), 2U);
}

TYPED_TEST(CommitPath, ARemoveOfAKeyThatTheLogDoesNotHoldIsDoneAtOnce) {
  const auto table = this->table();
  Events events;
  table->swTableHelperIs(Lumen::makeNode<typename TestFixture::Hooks>(events));
  const auto handle =
      table->entryRemoveWithResponseHandler(this->key(1), nullptr, this->handler(events));
  const std::string key = this->text(1);
  {
    const TestSupport::TableWatch<TypeParam> tableWatch(table, events);
    const TestSupport::HandleWatch handleWatch(handle, events);
    this->pass();
  }
  EXPECT_THAT(events, ElementsAre("900 " + key + " was 0.0", "901 " + key + " was 0.0",
                                  "hook remove at 0", "state 4 at 0", "handler 4"));
  EXPECT_EQ(table->entryHandleInLogFront(), nullptr);
  EXPECT_EQ(this->tableVersion(), 0U);
  EXPECT_FALSE(table->hasPendingHwWrites());
  EXPECT_EQ(table->stats()->commitCnt(), 1U);
}

TYPED_TEST(CommitPath, TheStepsOfARemoveAllComeInOrder) {
  const auto table = this->table();
  this->commit(table, 1);
  Events events;
  table->swTableHelperIs(Lumen::makeNode<typename TestFixture::Hooks>(events));
  table->entryRemoveAllWithResponseHandler(nullptr, this->handler(events));
  const Lumen::Ptr<const Asic::OrderedSwTable::EntryHandle> handle =
      Lumen::staticPtrCast<typename TestFixture::Resolver>(table->resolverQueue().front())
          ->swTableEntry()
          ->entryHandle();
  {
    const TestSupport::TableWatch<TypeParam> tableWatch(table, events);
    const TestSupport::HandleWatch handleWatch(handle, events);
    const TestSupport::TraceWatch<TypeParam> traces("*KelpEntryLog/8", events);
    this->pass();
  }
  EXPECT_THAT(events,
              ElementsAre("EntryLog 8:  neededEntry:{}, unitId: 0", "state 1 at 2", "902 was 0"));
  EXPECT_EQ(table->entryHandleInLogBack()->logVersion().value, 1U) << "it waits for no report";
  EXPECT_EQ(table->stats()->tableClearCnt(), 1U);
  EXPECT_EQ(table->stats()->commitCnt(), 2U);
  events.clear();
  this->report(2);
  EXPECT_EQ(this->state(handle), 1U) << "no report ends it";
  EXPECT_THAT(events, testing::IsEmpty());
}

TYPED_TEST(CommitPath, ARemoveAllOfAnEmptyCollectionChangesNothing) {
  const auto table = this->table();
  Events events;
  table->entryRemoveAllWithResponseHandler(nullptr, this->handler(events));
  const auto handle =
      Lumen::staticPtrCast<typename TestFixture::Resolver>(table->resolverQueue().front())
          ->swTableEntry()
          ->entryHandle();
  this->pass();
  EXPECT_EQ(this->state(handle), 0U);
  EXPECT_EQ(handle->logVersion().value, 0U);
  EXPECT_FALSE(table->transientRemoveAllVersion().valid());
  EXPECT_EQ(this->tableVersion(), 0U);
  EXPECT_EQ(table->stats()->tableClearCnt(), 0U);
  EXPECT_EQ(table->stats()->commitCnt(), 1U);
  EXPECT_THAT(events, testing::IsEmpty());
}

TYPED_TEST(CommitPath, EveryCommitOfARemoveAllCountsOneDown) {
  const auto table = this->table();
  this->commit(table, 1);
  for (int i = 0; i < 3; ++i) {
    table->entryRemoveAll(nullptr);
  }
  EXPECT_EQ(table->transientRemoveAllVersion().value, 2U);
  Events events;
  const TestSupport::TableWatch<TypeParam> tableWatch(table, events);
  TestSupport::TraceCapture traces("*KelpSwTable/8");
  this->pass();
  EXPECT_THAT(events, ElementsAre("902 was 2", "902 was 1", "902 was 0"));
  EXPECT_FALSE(table->transientRemoveAllVersion().valid());
  for (const char* text : {"2", "1", "0"}) {
    EXPECT_TRUE(traces.has(8, fmt::format("Committing table delete for version: {}", text)));
  }
}

TYPED_TEST(CommitPath, TheCommitOfAnOlderWriteLeavesTheNewestAlone) {
  const auto table = this->table();
  const auto gate = this->handleIn(table, 0);
  const auto first = this->write(table, 1, 0);
  const auto second = table->entryWrite(this->key(1), this->entry(1, 1), gate);
  EXPECT_EQ(this->pass(), 1U);
  EXPECT_EQ(this->state(first), 1U);
  EXPECT_EQ(this->state(second), 0U);
  ASSERT_NE(table->transientAddEntry(this->key(1)), nullptr);
  EXPECT_EQ(table->transientAddEntry(this->key(1))->entryHandle().get(), second.get());
  EXPECT_TRUE(table->transientVersionForKey(this->key(1)).isEq(EntryVersion{1, 0}));
  EXPECT_TRUE(TestSupport::isAsked(this->configRecord(1).entry, this->entry(1, 0)));
  EXPECT_TRUE(TestSupport::isAsked(table->entryRead(this->key(1)), this->entry(1, 1)));
  gate->entryStateIs(Asic::EntryState::entryStateSuccess);
  this->group()->groupResolver()->updateGenId();
  EXPECT_EQ(this->pass(), 1U);
  EXPECT_EQ(this->state(second), 1U);
  EXPECT_EQ(table->transientAddEntry(this->key(1)), nullptr);
  EXPECT_FALSE(table->transientVersionForKey(this->key(1)).valid());
  EXPECT_TRUE(this->write(table, 1)->version().isEq(EntryVersion{0, 0}));
}

TYPED_TEST(CommitPath, EveryVersionOfAKeyGoesThroughTheLogInOrder) {
  const auto table = this->table();
  Events events;
  std::vector<typename TestFixture::Handle> handles;
  for (std::uint64_t i = 0; i < 4; ++i) {
    handles.push_back(this->write(table, 1, i));
  }
  {
    const TestSupport::TableWatch<TypeParam> watch(table, events);
    EXPECT_EQ(this->pass(), 4U);
  }
  const std::string key = this->text(1);
  EXPECT_THAT(events, ElementsAre("907 enq 1", "907 enq 2", "907 enq 3", "899 " + key + " was 3.0",
                                  "901 " + key + " was 3.0", "907 enq 4"));
  for (std::uint64_t i = 0; i < 4; ++i) {
    EXPECT_EQ(handles[i]->logVersion().value, i + 1);
    EXPECT_EQ(this->logRecord(i + 1).logEntry.key, this->key(1));
  }
  EXPECT_TRUE(TestSupport::isAsked(this->configRecord(1).entry, this->entry(1, 3)));
  EXPECT_EQ(this->configRecord(1).version.value, 4U);
}

TYPED_TEST(CommitPath, AWriteThatWasOvertakenByARemoveIsLoggedAndThenDeleted) {
  const auto table = this->table();
  const auto write = this->write(table, 1);
  const auto removal = this->remove(table, 1);
  Events events;
  {
    const TestSupport::TableWatch<TypeParam> watch(table, events);
    this->pass();
  }
  const std::string key = this->text(1);
  EXPECT_THAT(events, ElementsAre("907 enq 1", "900 " + key + " was 1.0", "901 " + key + " was 1.0",
                                  "907 enq 2"));
  EXPECT_EQ(write->logVersion().value, 1U);
  EXPECT_EQ(removal->logVersion().value, 2U);
  EXPECT_FALSE(this->logRecord(1).isEntryDeleted());
  EXPECT_TRUE(this->logRecord(2).isEntryDeleted());
  EXPECT_FALSE(table->entryHas(this->key(1)));
}

TYPED_TEST(CommitPath, ARemoveThatWasOvertakenByAWriteIsLoggedFirst) {
  const auto table = this->table();
  this->commit(table, 1, 0);
  const auto removal = this->remove(table, 1);
  const auto write = this->write(table, 1, 1);
  Events events;
  {
    const TestSupport::TableWatch<TypeParam> watch(table, events);
    this->pass();
  }
  const std::string key = this->text(1);
  EXPECT_THAT(events, ElementsAre("907 enq 2", "899 " + key + " was 1.0", "901 " + key + " was 1.0",
                                  "907 enq 3"));
  EXPECT_EQ(removal->logVersion().value, 2U);
  EXPECT_EQ(write->logVersion().value, 3U);
  EXPECT_TRUE(TestSupport::isAsked(table->entryRead(this->key(1)), this->entry(1, 1)));
}

TYPED_TEST(CommitPath, ASuppressedWriteThatTheHardwareSideHasReportedIsDoneAtOnce) {
  const auto table = this->table();
  this->commit(table, 1);
  this->report(1);
  table->mark();
  Events events;
  const auto handle = table->entryWriteWithResponseHandler(this->key(1), this->entry(1), nullptr,
                                                           this->handler(events));
  this->pass();
  EXPECT_EQ(this->state(handle), 4U);
  EXPECT_EQ(handle->logVersion().value, 1U);
  EXPECT_EQ(table->entryHandleInLogFront(), nullptr);
  EXPECT_THAT(events, ElementsAre("handler 4"));
  EXPECT_EQ(this->tableVersion(), 1U);
  EXPECT_EQ(table->stats()->suppressedWriteCnt(), 1U);
  EXPECT_FALSE(table->hasPendingHwWrites());
  this->report(1);
  EXPECT_EQ(events.size(), 1U);
}

TYPED_TEST(CommitPath, ASuppressedWriteThatIsNotReportedWaitsForTheOldVersion) {
  const auto table = this->table();
  this->commit(table, 1);
  table->mark();
  const auto handle = this->write(table, 1);
  this->pass();
  EXPECT_EQ(this->state(handle), 1U);
  EXPECT_EQ(handle->logVersion().value, 1U);
  EXPECT_EQ(this->tableVersion(), 1U);
  EXPECT_EQ(table->entryHandleInLogBack().get(), handle.get());
  EXPECT_EQ(table->stats()->suppressedWriteCnt(), 1U);
  this->report(1);
  EXPECT_EQ(this->state(handle), 4U);
}

TYPED_TEST(CommitPath, ADifferentWriteWhileMarkingIsNotSuppressed) {
  const auto table = this->table();
  this->commit(table, 1, 0);
  this->report(1);
  table->mark();
  const auto handle = this->write(table, 1, 1);
  this->pass();
  EXPECT_EQ(handle->logVersion().value, 2U);
  EXPECT_EQ(this->state(handle), 1U);
  EXPECT_EQ(table->stats()->suppressedWriteCnt(), 0U);
  EXPECT_EQ(table->stats()->suppressCheckDiffCnt(), 1U);
}

TYPED_TEST(CommitPath, ATableWithoutLinkagesNeverTakesTheFailedResourcePath) {
  class Failures final : public TestFixture::Table::Helper {
   public:
    bool finalizeOnFailure(const Lumen::Ptr<typename TestFixture::Table::Wrapper>&, bool,
                           const Lumen::Ptr<typename TestFixture::Table>&) override {
      ++calls;
      return false;
    }
    int calls = 0;
  };
  const auto table = this->table();
  const auto helper = Lumen::makeNode<Failures>();
  table->swTableHelperIs(helper);
  for (std::uint64_t i = 0; i < 20; ++i) {
    this->commit(table, i, i);
  }
  EXPECT_EQ(helper->calls, 0);
  EXPECT_EQ(table->stats()->resolveFailCnt(), 0U);
  EXPECT_EQ(table->stats()->commitCnt(), 20U);
}

TYPED_TEST(CommitPath, TheTimeOfTheLastCommitIsKept) {
  const auto table = this->table();
  EXPECT_EQ(table->stats()->lastCommitTime(), 0.0);
  const double before = Brio::System::currentTimeUtc();
  this->commit(table, 1);
  const double at = table->stats()->lastCommitTime();
  EXPECT_GE(at, before);
  EXPECT_LE(at, Brio::System::currentTimeUtc());
}

TYPED_TEST(CommitPath, TheNeededSetOfATableWithoutLinkagesIsNewAndEmpty) {
  const auto table = this->table();
  this->write(table, 1);
  const auto wrapper = table->transientAddEntry(this->key(1));
  const auto one = table->getNeededEntrySet(wrapper);
  const auto two = table->getNeededEntrySet(wrapper);
  ASSERT_NE(one, nullptr);
  EXPECT_TRUE(one->empty());
  EXPECT_NE(one, two);
}

TYPED_TEST(CommitPath, AHandlerMayDropItsHandleAndWriteAgain) {
  const auto table = this->table();
  typename TestFixture::Handle kept;
  typename TestFixture::Handle next;
  int calls = 0;
  kept = table->entryRemoveWithResponseHandler(
      this->key(1), nullptr, [&](const typename TestFixture::Handle& handle) {
        ++calls;
        EXPECT_EQ(handle, kept);
        kept = nullptr;
        next = this->write(table, 1);
        EXPECT_TRUE(next->version().isEq(EntryVersion{0, 0})) << "the remove has left";
        EXPECT_EQ(this->state(handle), 4U);
      });
  EXPECT_EQ(this->group()->groupResolver()->runPass(), 1U) << "what a handler writes comes later";
  EXPECT_EQ(calls, 1);
  ASSERT_NE(next, nullptr);
  EXPECT_EQ(this->state(next), 0U);
  EXPECT_EQ(this->pass(), 1U);
  EXPECT_EQ(this->state(next), 1U);
  EXPECT_EQ(calls, 1);
}

TYPED_TEST(CommitPath, AHandlerIsCalledAtMostOnce) {
  const auto table = this->table();
  std::vector<int> calls(5);
  const auto counting = [&](std::size_t i) { return [&calls, i](const auto&) { ++calls[i]; }; };
  (void)table->entryWriteWithResponseHandler(this->key(1), this->entry(1), nullptr, counting(0));
  (void)table->entryWriteWithResponseHandler(this->key(1), this->entry(1, 1), nullptr, counting(1));
  (void)table->entryRemoveWithResponseHandler(this->key(1), nullptr, counting(2));
  (void)table->entryRemoveWithResponseHandler(this->key(2), nullptr, counting(3));
  (void)table->entryWriteWithResponseHandler(this->key(3), this->entry(3), this->handleIn(table, 5),
                                             counting(4));
  this->pass();
  EXPECT_THAT(calls, ElementsAre(0, 0, 0, 1, 1));
  for (int i = 0; i < 3; ++i) {
    table->tableStatusVersion(Asic::LogVersion{3});
    this->pass();
  }
  EXPECT_THAT(calls, ElementsAre(1, 1, 1, 1, 1));
}

TYPED_TEST(CommitPath, AnUpdateThatChangesNothingLogsNothingAndItsHandleIsNotQueued) {
  const auto table = this->table();
  this->commit(table, 1);
  this->report(1);
  const auto handle = table->updateEntry(this->key(1));
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(this->state(handle), 1U);
  EXPECT_EQ(handle->logVersion().value, 1U);
  EXPECT_FALSE(handle->responseHandler());
  EXPECT_EQ(table->entryHandleInLogFront(), nullptr);
  EXPECT_EQ(this->tableVersion(), 1U);
  EXPECT_EQ(table->stats()->updateCnt(), 0U);
  EXPECT_EQ(table->updateEntry(this->key(2)), nullptr);
}

TYPED_TEST(CommitPath, ChangesOfTwoUnitsTakeTheirVersionsFromOneSequence) {
  const auto table = this->table();
  const auto second = this->table(this->unit1);
  const auto a = this->write(table, 1);
  const auto b = this->write(second, 1);
  const auto c = this->write(table, 2);
  this->pass();
  EXPECT_EQ(a->logVersion().value, 1U);
  EXPECT_EQ(b->logVersion().value, 2U);
  EXPECT_EQ(c->logVersion().value, 3U);
  EXPECT_EQ(this->logRecord(2).unitId, this->unit1);
  EXPECT_EQ(second->stats()->commitCnt(), 1U);
}

// --- a response handler that ends the agent

TYPED_TEST(CommitPath, AHandlerMayEndTheAgentWhenAWriteFailsOnItsDependency) {
  auto table = this->table();
  const auto failed = this->handleIn(table, 5);
  unsigned called = 0;
  (void)table->entryWriteWithResponseHandler(this->key(1), this->entry(1), failed,
                                             [&](const auto&) {
                                               ++called;
                                               table = nullptr;
                                               this->agent_->stop();
                                             });
  const auto resolver = this->group()->groupResolver();
  EXPECT_EQ(resolver->runPass(), 1U);
  EXPECT_EQ(called, 1U);
}

TYPED_TEST(CommitPath, AHandlerMayEndTheAgentWhenARemoveHasNothingToDo) {
  auto table = this->table();
  unsigned called = 0;
  (void)table->entryRemoveWithResponseHandler(this->key(1), nullptr, [&](const auto&) {
    ++called;
    table = nullptr;
    this->agent_->stop();
  });
  (void)table->entryWrite(this->key(2), this->entry(2), nullptr);  // behind it in the queue
  const auto resolver = this->group()->groupResolver();
  EXPECT_EQ(resolver->runPass(), 1U);
  EXPECT_EQ(called, 1U);
  EXPECT_EQ(resolver->size(), 0U);
}

TYPED_TEST(CommitPath, AHandlerMayEndTheAgentWhenTheHardwareSideReports) {
  auto table = this->table();
  unsigned called = 0;
  const auto handler = [&](const auto&) {
    ++called;
    table = nullptr;
    this->agent_->stop();
  };
  (void)table->entryWriteWithResponseHandler(this->key(1), this->entry(1), nullptr, handler);
  (void)table->entryWrite(this->key(2), this->entry(2), nullptr);
  this->pass();
  this->report(2);
  EXPECT_EQ(called, 1U);
}

}  // namespace
