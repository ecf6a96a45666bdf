#include <filesystem>

#include "FlipByte.h"
#include "ResourceFixture.h"

// Who holds what, and when an index that was released is free.

namespace {

using ResourceTest::AllResourceTables;
using ResourceTest::ResourceFixture;
using ResourceTest::ResourceTableName;
using State = Asic::EntryState;

template <class T>
class ResourceRelease : public ResourceFixture<T> {
 protected:
  // Whether the next key to be asked for could get `index`, when all others are in use.
  bool isFree(std::uint32_t index) {
    std::vector<typename ResourceFixture<T>::Handle> all;
    for (std::uint32_t number = 1000; number < 1000 + this->kLimit; ++number) {
      all.push_back(this->request(2, number));
    }
    bool free = false;
    for (const auto& handle : all) {
      free = free ||
             (handle->entryState() == State::entryStateSuccess && this->index(handle) == index);
    }
    return free;
  }
};
TYPED_TEST_SUITE(ResourceRelease, AllResourceTables, ResourceTableName);

TYPED_TEST(ResourceRelease, TheFirstAckMakesAHoldAndLaterOnesUpdateIt) {
  const auto handle = this->request(0, 1);
  EXPECT_EQ(this->acked(0, 1), std::nullopt);
  this->clients_[0]->ackUpdate(handle, 5, nullptr);
  EXPECT_EQ(this->acked(0, 1), 5U);
  this->clients_[0]->ackUpdate(handle, 6, nullptr);
  EXPECT_EQ(this->acked(0, 1), 6U);
  EXPECT_EQ(this->holdRecords().size(), 1U);
  this->expectCounts(1, 1, 0);
}

TYPED_TEST(ResourceRelease, HoldsOfTwoClientsAreCountedApart) {
  auto first = this->held(0, 1);
  auto second = this->request(1, 1);
  EXPECT_EQ(this->acked(1, 1), std::nullopt);
  this->clients_[1]->ackUpdate(second, 9, nullptr);
  EXPECT_EQ(this->acked(0, 1), first->updateVersion());
  EXPECT_EQ(this->acked(1, 1), 9U);
  this->clients_[0]->release(first, nullptr);
  EXPECT_EQ(this->acked(0, 1), std::nullopt);
  EXPECT_EQ(this->acked(1, 1), 9U);
  first = nullptr;
  second = nullptr;
  this->expectCounts(1, 1, 0);
}

TYPED_TEST(ResourceRelease, TwoUnitsOfATableAreTwoClients) {
  const auto unit1 = this->table_->makeClientInstance();
  unit1->clientIdIs({this->kTables[0], Asic::UnitId{1}, 0});
  const auto handle = this->held(0, 1);
  const auto other = unit1->request(this->key(1), nullptr);
  EXPECT_EQ(this->index(other), this->index(handle));
  unit1->ackUpdate(other, 1, nullptr);
  EXPECT_EQ(this->holdRecords().size(), 2U);
  const std::uint64_t version = this->release(0, handle);
  EXPECT_EQ(this->holdRecords().size(), 1U);
  EXPECT_EQ(this->released(0, this->index(handle)), version);
}

TYPED_TEST(ResourceRelease, AHoldKeepsTheIndexThoughTheHandleIsGone) {
  auto handle = this->held(0, 1);
  const std::uint32_t index = this->index(handle);
  handle = nullptr;
  this->expectCounts(1, 1, 0);
  EXPECT_FALSE(this->isFree(index));
  EXPECT_EQ(this->index(this->request(1, 1)), index);
}

TYPED_TEST(ResourceRelease, TheIndexIsFreeOnlyWhenTheVersionIsReported) {
  auto handle = this->held(0, 1);
  const std::uint32_t index = this->index(handle);
  const std::uint64_t version = this->release(0, handle);
  EXPECT_EQ(this->acked(0, 1), std::nullopt);
  EXPECT_EQ(this->released(0, index), version);
  this->expectCounts(1, 1, 1);
  handle = nullptr;
  this->expectCounts(1, 1, 1);
  EXPECT_FALSE(this->isFree(index));
  EXPECT_FALSE(this->report(0, version - 1));
  EXPECT_FALSE(this->isFree(index));
  EXPECT_EQ(this->released(0, index), version);
  EXPECT_TRUE(this->report(0, version));
  this->expectEmpty();
  EXPECT_TRUE(this->isFree(index));
}

TYPED_TEST(ResourceRelease, TheReportOfAnotherTableDoesNotFreeTheIndex) {
  auto handle = this->held(0, 1);
  const std::uint64_t version = this->release(0, handle);
  handle = nullptr;
  while (this->published(1) < version + 5) {
    (void)this->logged(1);
  }
  EXPECT_FALSE(this->reportAll(1));
  this->expectCounts(1, 1, 1);
  EXPECT_TRUE(this->reportAll(0));
  this->expectEmpty();
}

TYPED_TEST(ResourceRelease, AReportIsTakenByWorkAndTellsTheResolverToAskAgain) {
  auto handle = this->held(0, 1);
  this->release(0, handle);
  handle = nullptr;
  const std::uint64_t before = this->questions();
  EXPECT_FALSE(this->table_->work());
  EXPECT_EQ(this->questions(), before) << "nothing has moved";
  this->reportAll(0);
  EXPECT_GT(this->questions(), before);
}

TYPED_TEST(ResourceRelease, OfManyReleasesAReportFreesThoseUpToItsVersion) {
  std::vector<typename TestFixture::Handle> handles;
  for (std::uint32_t number = 1; number <= 4; ++number) {
    handles.push_back(this->held(0, number));
  }
  // Not in the order of the versions.
  const auto early = this->logged(0);
  const auto late = this->logged(0);
  this->clients_[0]->release(handles[0], late);
  this->clients_[0]->release(handles[1], early);
  this->clients_[0]->release(handles[2], late);
  this->clients_[0]->release(handles[3], early);
  handles.clear();
  this->expectCounts(4, 4, 4);
  this->report(0, early->entryTableVersion().version.value);
  this->expectCounts(2, 2, 2);
  EXPECT_TRUE(this->record(1).has_value());
  EXPECT_TRUE(this->record(3).has_value());
  this->reportAll(0);
  this->expectEmpty();
}

TYPED_TEST(ResourceRelease, WithoutAnEntryItIsFreeAtOnce) {
  auto handle = this->held(0, 1);
  const std::uint32_t index = this->index(handle);
  this->clients_[0]->release(handle, nullptr);
  EXPECT_EQ(this->acked(0, 1), std::nullopt);
  this->expectCounts(1, 1, 0);
  handle = nullptr;
  this->expectEmpty();
  EXPECT_TRUE(this->isFree(index));
}

TYPED_TEST(ResourceRelease, AnEntryWithoutAVersionIsWaitedFor) {
  auto handle = this->held(0, 1);
  const std::uint32_t index = this->index(handle);
  const auto entry = this->unlogged(0);
  this->clients_[0]->release(handle, entry);
  handle = nullptr;
  EXPECT_EQ(this->released(0, index), this->kNotYet);
  this->reportAll();
  this->expectCounts(1, 1, 1);
  EXPECT_FALSE(this->isFree(index));
  const auto own = this->logged(0);
  entry->versionIs(own->entryTableVersion().version.value);
  this->table_->work();
  EXPECT_EQ(this->released(0, index), this->published(0));
  this->report(0, this->published(0) - 1);
  this->expectCounts(1, 1, 1);
  this->reportAll(0);
  this->expectEmpty();
}

TYPED_TEST(ResourceRelease, AnEntryThatEndsWithoutAVersionFreesTheIndex) {
  auto handle = this->held(0, 1);
  const auto entry = this->unlogged(0);
  this->clients_[0]->release(handle, entry);
  handle = nullptr;
  this->table_->work();
  this->expectCounts(1, 1, 1);
  entry->entryStateIs(State::entryStateFailed);
  EXPECT_TRUE(this->table_->work());
  this->expectEmpty();
}

TYPED_TEST(ResourceRelease, ASecondOneDoesNothing) {
  auto handle = this->held(0, 1);
  const std::uint32_t index = this->index(handle);
  const std::uint64_t version = this->release(0, handle);
  this->release(0, handle);
  this->clients_[0]->release(handle, nullptr);
  EXPECT_EQ(this->released(0, index), version);
  handle = nullptr;
  this->report(0, version);
  this->expectEmpty();
}

TYPED_TEST(ResourceRelease, OfAResourceThatWasNeverHeldDoesNothing) {
  auto handle = this->request(0, 1);
  this->release(0, handle);
  EXPECT_FALSE(handle->isPostReleaseProtoState());
  this->expectCounts(1, 1, 0);
  const auto other = this->held(1, 1);
  this->release(0, handle);
  this->expectCounts(1, 1, 0);
  EXPECT_TRUE(this->acked(1, 1).has_value());
}

TYPED_TEST(ResourceRelease, WhileAnotherClientHoldsTheIndexStays) {
  auto first = this->held(0, 1);
  auto second = this->held(1, 1);
  const std::uint32_t index = this->index(first);
  this->release(0, first);
  first = nullptr;
  this->reportAll(0);
  this->expectCounts(1, 1, 0);
  EXPECT_EQ(second->entryState(), State::entryStateSuccess);
  EXPECT_EQ(this->index(second), index);
  EXPECT_EQ(this->acked(1, 1), second->updateVersion());
  this->release(1, second);
  second = nullptr;
  this->reportAll(1);
  this->expectEmpty();
}

TYPED_TEST(ResourceRelease, TheIndexIsFreeWhenTheLastOfTwoClientsIsReported) {
  auto first = this->held(0, 1);
  auto second = this->held(1, 1);
  this->release(0, first);
  this->release(1, second);
  first = nullptr;
  second = nullptr;
  this->expectCounts(1, 1, 2);
  this->reportAll(1);
  this->expectCounts(1, 1, 1);
  this->reportAll(0);
  this->expectEmpty();
}

TYPED_TEST(ResourceRelease, ARequestBeforeTheReportGivesTheSameIndexBack) {
  auto handle = this->held(0, 1);
  const std::uint32_t index = this->index(handle);
  const std::uint32_t version = handle->updateVersion();
  this->release(0, handle);
  handle = nullptr;
  const auto again = this->request(0, 1);
  const auto other = this->request(1, 1);
  EXPECT_EQ(this->index(again), index);
  EXPECT_EQ(this->index(other), index);
  EXPECT_EQ(again->updateVersion(), version);
  EXPECT_EQ(again->entryState(), State::entryStateSuccess);
  // The report of the old release does not take it away.
  this->reportAll(0);
  this->expectCounts(1, 1, 0);
  EXPECT_EQ(this->index(this->request(0, 1)), index);
  EXPECT_FALSE(this->isFree(index));
}

TYPED_TEST(ResourceRelease, TheLatestReleaseOfAClientCounts) {
  auto handle = this->held(0, 1);
  const std::uint32_t index = this->index(handle);
  const std::uint64_t first = this->release(0, handle);
  this->ack(0, handle);
  const std::uint64_t second = this->release(0, handle);
  EXPECT_EQ(this->released(0, index), second);
  handle = nullptr;
  this->expectCounts(1, 1, 1);
  EXPECT_FALSE(this->report(0, first));
  EXPECT_FALSE(this->report(0, second - 1));
  this->expectCounts(1, 1, 1);
  this->report(0, second);
  this->expectEmpty();
}

TYPED_TEST(ResourceRelease, TheFlagOfAReleaseIsClearedByRequestAndAck) {
  const auto handle = this->held(0, 1);
  const auto other = this->held(1, 1);
  EXPECT_FALSE(handle->isPostReleaseProtoState());
  this->release(0, handle);
  EXPECT_TRUE(handle->isPostReleaseProtoState());
  EXPECT_FALSE(other->isPostReleaseProtoState());
  EXPECT_EQ(this->request(0, 1), handle);
  EXPECT_FALSE(handle->isPostReleaseProtoState());
  this->ack(0, handle);
  this->release(0, handle);
  EXPECT_TRUE(handle->isPostReleaseProtoState());
  this->ack(0, handle);
  EXPECT_FALSE(handle->isPostReleaseProtoState());
}

TYPED_TEST(ResourceRelease, ALogThatWasBegunAnewFreesWhatWaitedForTheOldOneWhenItIsReportedWhole) {
  auto handle = this->held(0, 1);
  for (int i = 0; i < 20; ++i) {
    (void)this->logged(0);
  }
  this->release(0, handle);
  handle = nullptr;
  const std::uint64_t old = this->published(0);
  this->stop();
  ASSERT_TRUE(std::filesystem::remove(TestSupport::entityFile(this->root_.path(), "log/0")));
  this->start();
  ASSERT_EQ(this->published(0), 0U);
  (void)this->logged(0);
  (void)this->logged(0);
  ASSERT_LT(this->published(0), old);
  this->report(0, 1);
  this->expectCounts(1, 1, 1);
  this->report(0, 2);
  this->expectEmpty();
}

TYPED_TEST(ResourceRelease, ALogThatWasBegunAnewAndIsStillEmptyIsReportedToo) {
  auto handle = this->held(0, 1);
  this->release(0, handle);
  handle = nullptr;
  this->stop();
  ASSERT_TRUE(std::filesystem::remove(TestSupport::entityFile(this->root_.path(), "log/0")));
  this->start();
  ASSERT_EQ(this->published(0), 0U);
  this->table_->work();
  this->expectCounts(1, 1, 1);
  // The chip may have what the old log said until it says that it has read the new one.
  this->report(0, 0);
  this->expectEmpty();
}

TYPED_TEST(ResourceRelease, ALogThatIsNotMountedYetFreesNothing) {
  auto handle = this->held(0, 1);
  this->release(0, handle);
  handle = nullptr;
  this->agent_->stop();
  this->table_ = nullptr;
  this->clients_ = {};
  // The agent comes back, with the resource tables before the logs.
  this->agent_ = Lumen::makeNode<Asic::OrderedTableInterface>(this->vault_);
  this->group_ = this->agent_->makeGroupIntf(KelpEmServer::kGroupName, KelpEmServer::kAgentName,
                                             TestFixture::kTables[0].agentAndGroupId());
  this->table_ = Lumen::makeNode<TypeParam>(this->agent_, TestFixture::kLimit);
  this->table_->work();
  this->expectCounts(1, 1, 1);
  for (std::size_t client = 0; client < TestFixture::kClients; ++client) {
    this->group_->entryLogMounted(TestFixture::kTables[client], this->logs_[client]);
  }
  this->table_->work();
  this->expectCounts(1, 1, 1);
  this->reportAll(0);
  this->expectEmpty();
}

}  // namespace
