#include <gmock/gmock.h>

#include "TableTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using TestSupport::Events;

template <class T>
class StatusVersion : public TestSupport::TableTest<T> {
 protected:
  using Handle = typename TestSupport::TableTest<T>::Handle;
  using Table = typename TestSupport::TableTest<T>::Table;

  // A committed write whose handler notes its log version.
  Handle committed(const Lumen::Ptr<Table>& table, std::uint64_t number) {
    auto handle = table->entryWriteWithResponseHandler(
        this->key(number), this->entry(number), nullptr, [this](const Handle& each) {
          events.push_back(fmt::format("handler of {}", each->logVersion()));
        });
    this->pass();
    return handle;
  }
  static void report(const Lumen::Ptr<Table>& table, std::uint64_t version) {
    table->tableStatusVersion(Asic::LogVersion{version});
  }

  Events events;
};
TYPED_TEST_SUITE(StatusVersion, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(StatusVersion, AReportOnAnEmptyQueueCleansTheLogAndEnds) {
  const auto table = this->table();
  this->commit(table, 1);
  table->entryHandleInLogDelAll();
  const std::uint64_t gen = this->group()->groupResolver()->genId();
  this->report(table, 1);
  EXPECT_EQ(this->changeLog().size(), 0U);
  EXPECT_EQ(this->log()->lastCleanedVersion().value, 1U);
  EXPECT_EQ(this->group()->groupResolver()->genId(), gen + 1);
  EXPECT_FALSE(this->intf()->swTableStatus()->pendingHwWrites());
}

TYPED_TEST(StatusVersion, AReportEndsWhatItCoversInOrderAndLeavesTheRest) {
  const auto table = this->table();
  std::vector<typename TestFixture::Handle> handles;
  // Versions 3, 5 and 7 of this unit; the others are of another.
  const auto second = this->table(this->unit1);
  for (std::uint64_t version = 1; version <= 7; ++version) {
    if (version == 3 || version == 5 || version == 7) {
      handles.push_back(this->committed(table, version));
    } else {
      this->commit(second, version);
    }
  }
  this->report(table, 5);
  EXPECT_THAT(this->events, ElementsAre("handler of 3", "handler of 5"));
  EXPECT_EQ(this->state(handles[0]), 4U);
  EXPECT_EQ(this->state(handles[1]), 4U);
  EXPECT_EQ(this->state(handles[2]), 1U);
  EXPECT_EQ(table->entryHandleInLogFront().get(), handles[2].get());
  this->report(table, 6);
  EXPECT_EQ(this->state(handles[2]), 1U);
  this->report(table, 7);
  EXPECT_EQ(this->state(handles[2]), 4U);
  EXPECT_THAT(this->events, ElementsAre("handler of 3", "handler of 5", "handler of 7"));
}

TYPED_TEST(StatusVersion, ASuppressedWriteBehindAHigherVersionWaitsForIt) {
  const auto table = this->table();
  for (std::uint64_t version = 1; version <= 4; ++version) {
    this->commit(table, version);
  }
  this->report(table, 4);
  const auto five = this->committed(table, 5);
  const auto six = this->committed(table, 6);
  table->mark();
  const auto suppressed = this->committed(table, 5);
  EXPECT_EQ(five->logVersion().value, 5U);
  EXPECT_EQ(six->logVersion().value, 6U);
  EXPECT_EQ(suppressed->logVersion().value, 5U);
  this->report(table, 5);
  EXPECT_EQ(this->state(five), 4U);
  EXPECT_EQ(this->state(six), 1U);
  EXPECT_EQ(this->state(suppressed), 1U);
  this->report(table, 6);
  EXPECT_EQ(this->state(six), 4U);
  EXPECT_EQ(this->state(suppressed), 4U);
  EXPECT_THAT(this->events, ElementsAre("handler of 5", "handler of 6", "handler of 5"));
}

TYPED_TEST(StatusVersion, AHandleWithoutAHandlerEndsToo) {
  const auto table = this->table();
  const auto handle = this->write(table, 1);
  this->pass();
  this->report(table, 1);
  EXPECT_EQ(this->state(handle), 4U);
  EXPECT_THAT(this->events, IsEmpty());
}

TYPED_TEST(StatusVersion, AReportOfZeroMovesNothing) {
  const auto table = this->table();
  const auto handle = this->committed(table, 1);
  this->report(table, 0);
  EXPECT_EQ(this->state(handle), 1U);
  EXPECT_EQ(table->entryHandleInLogFront().get(), handle.get());
  EXPECT_THAT(this->events, IsEmpty());
  EXPECT_EQ(this->changeLog().size(), 1U);
}

TYPED_TEST(StatusVersion, AReportAboveTheTableVersionEmptiesTheQueue) {
  const auto table = this->table();
  const auto handle = this->committed(table, 1);
  this->report(table, 0xFFFFFFFFFFFFFFFF);
  EXPECT_EQ(this->state(handle), 4U);
  EXPECT_EQ(this->log()->lastCleanedVersion().value, 0xFFFFFFFFFFFFFFFF);
  EXPECT_TRUE(table->hasPendingHwWrites()) << "the mark stands above the table version";
}

TYPED_TEST(StatusVersion, ALowerReportMovesTheMarkBackAndNoHandle) {
  const auto table = this->table();
  const auto first = this->committed(table, 1);
  const auto second = this->committed(table, 2);
  this->report(table, 1);
  this->report(table, 0);
  EXPECT_EQ(this->log()->lastCleanedVersion().value, 0U);
  EXPECT_EQ(this->state(first), 4U);
  EXPECT_EQ(this->state(second), 1U);
  EXPECT_EQ(this->events.size(), 1U);
}

TYPED_TEST(StatusVersion, TheStepsComeInOrder) {
  const auto table = this->table();
  const auto one = this->committed(table, 1);
  const auto two = this->committed(table, 2);
  auto& events = this->events;
  {
    const TestSupport::TableWatch<TypeParam> tableWatch(table, events);
    const TestSupport::HandleWatch oneWatch(one, events);
    const TestSupport::HandleWatch twoWatch(two, events);
    const TestSupport::StatusWatch statusWatch(this->intf()->swTableStatus(), events);
    const TestSupport::TraceWatch<TypeParam> traces("*KelpSwTable/3:*KelpEntryLog/8", events);
    this->report(table, 2);
  }
  EXPECT_THAT(
      events,
      ElementsAre(
          "EntryLog 8:  version 2", "907 deq 1 of 1",
          "SwTable 3: Processing version: 1, key: " + this->text(1), "state 4 at 1", "handler of 1",
          "907 deq 2 of 2", "SwTable 3: Processing version: 2, key: " + this->text(2),
          "state 4 at 2", "handler of 2",
          fmt::format("SwTable 3:  pendingHwWrites for swTable: tableId: {}, unitId0 is false",
                      TypeParam::tableId),
          "pending false"));
}

TYPED_TEST(StatusVersion, AHandlerSeesTheLogAtTheReportedVersion) {
  const auto table = this->table();
  std::uint64_t cleaned = 0;
  std::uint64_t records = 99;
  (void)table->entryWriteWithResponseHandler(this->key(1), this->entry(1), nullptr,
                                             [&](const typename TestFixture::Handle&) {
                                               cleaned = this->log()->lastCleanedVersion().value;
                                               records = this->changeLog().size();
                                             });
  this->pass();
  this->commit(table, 2);
  this->report(table, 2);
  EXPECT_EQ(cleaned, 2U);
  EXPECT_EQ(records, 0U);
}

TYPED_TEST(StatusVersion, AHandlerMayWriteAndItsCommitQueuesBehindTheFront) {
  const auto table = this->table();
  typename TestFixture::Handle again;
  const auto first = table->entryWriteWithResponseHandler(
      this->key(1), this->entry(1), nullptr, [&](const typename TestFixture::Handle&) {
        again = this->committed(table, 3);  // a pass of its own: no pass runs here
        EXPECT_EQ(again->logVersion().value, 3U);
        EXPECT_EQ(table->entryHandleInLogBack().get(), again.get());
      });
  this->pass();
  const auto second = this->committed(table, 2);
  this->report(table, 2);
  EXPECT_EQ(this->state(first), 4U);
  EXPECT_EQ(this->state(second), 4U);
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(this->state(again), 1U);
  EXPECT_THAT(this->events, ElementsAre("handler of 2"));
  this->report(table, 3);
  EXPECT_EQ(this->state(again), 4U);
}

TYPED_TEST(StatusVersion, AHandlerMayReportFromWithin) {
  const auto table = this->table();
  (void)table->entryWriteWithResponseHandler(
      this->key(1), this->entry(1), nullptr,
      [&](const typename TestFixture::Handle&) { this->report(table, 2); });
  this->pass();
  const auto second = this->committed(table, 2);
  this->report(table, 1);
  EXPECT_EQ(this->state(second), 4U);
  EXPECT_EQ(table->entryHandleInLogFront(), nullptr);
}

TYPED_TEST(StatusVersion, ACallerMayDropItsHandleAndItsHandlerStillRuns) {
  const auto table = this->table();
  typename TestFixture::Handle kept = this->committed(table, 1);
  kept = nullptr;
  this->report(table, 1);
  EXPECT_THAT(this->events, ElementsAre("handler of 1"));
}

TYPED_TEST(StatusVersion, ItTouchesNothingInTransientState) {
  const auto table = this->table();
  this->commit(table, 1);
  this->write(table, 1, 1);
  this->remove(table, 2);
  this->report(table, 1);
  EXPECT_NE(table->transientAddEntry(this->key(1)), nullptr);
  EXPECT_NE(table->transientRemoveEntry(this->key(2)), nullptr);
  EXPECT_TRUE(table->transientVersionForKey(this->key(1)).valid());
  table->entryRemoveAll(nullptr);
  this->report(table, 1);
  EXPECT_TRUE(table->transientRemoveAllVersion().valid());
}

TYPED_TEST(StatusVersion, ItReachesEveryUnit) {
  const auto table = this->table();
  const auto second = this->table(this->unit1);
  const auto one = this->committed(table, 1);
  const auto two = this->committed(second, 1);
  TestSupport::TableFixture<TypeParam>::report(2);
  EXPECT_EQ(this->state(one), 4U);
  EXPECT_EQ(this->state(two), 4U);
}

TYPED_TEST(StatusVersion, TheEndOfARemoveIsToldLikeThatOfAWrite) {
  const auto table = this->table();
  this->commit(table, 1);
  const auto handle = table->entryRemoveWithResponseHandler(
      this->key(1), nullptr, [this](const typename TestFixture::Handle& each) {
        this->events.push_back(fmt::format("handler of {}", each->logVersion()));
      });
  this->pass();
  EXPECT_EQ(this->state(handle), 1U);
  this->report(table, 2);
  EXPECT_EQ(this->state(handle), 4U);
  EXPECT_THAT(this->events, ElementsAre("handler of 2"));
  EXPECT_EQ(this->log()->entrysInDeletion(this->unit0), 0U);
}

TYPED_TEST(StatusVersion, AHandleOutlivesItsTable) {
  typename TestFixture::Handle queued;
  typename TestFixture::Handle logged;
  {
    const auto table = this->table();
    logged = this->committed(table, 1);
    queued = this->write(table, 2);
  }
  const std::string name = std::string(TypeParam::name.view()) + "Kelp";
  this->stop();
  for (const auto& handle : {queued, logged}) {
    EXPECT_EQ(handle->refCount(), 1U + 1U) << "the test's own copies";
    EXPECT_EQ(handle->tableName(), name);
    EXPECT_EQ(handle->tableId(), TypeParam::tableId);
  }
  EXPECT_EQ(this->state(queued), 0U) << "what was queued is dropped";
  EXPECT_EQ(this->state(logged), 1U);
  EXPECT_TRUE(logged->entryTableVersion() ==
              (Asic::TableVersion{TypeParam::tableId, Asic::LogVersion{1}}));
  EXPECT_THAT(this->events, IsEmpty());
}

}  // namespace
