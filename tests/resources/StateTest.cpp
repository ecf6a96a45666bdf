#include <chrono>
#include <thread>

#include "Brio/System.h"
#include "ResourceFixture.h"

// Resources that can't be had at once: no index is free, they are being prepared, or refused.

namespace {

using ResourceTest::AllResourceTables;
using ResourceTest::EgressRemarkProfile;
using ResourceTest::FieldWatch;
using ResourceTest::ResourceFixture;
using ResourceTest::ResourceTableName;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using State = Asic::EntryState;

// The numbers that handles publish under, as who listens to them knows them.
template <class T>
constexpr std::uint32_t kField = std::is_same_v<T, EgressRemarkProfile> ? 518 : 517;

template <class T>
class ResourceState : public ResourceFixture<T> {
 public:
  using typename ResourceFixture<T>::Handle;
  using typename ResourceFixture<T>::Stage;

 protected:
  // A table with `limit` indexes, all of which client 0 holds under the keys from 101 on.
  std::vector<Handle> exhausted(std::uint32_t limit) {
    this->restart(limit);
    std::vector<Handle> all;
    for (std::uint32_t i = 0; i < limit; ++i) {
      all.push_back(this->held(0, 101 + i));
    }
    return all;
  }
  // Sets a short deadline, and lets the clock, which goes in steps, go past it.
  void deadlineHasPassed() {
    this->table_->deadlineIs(1e-6);
    const double begin = Brio::System::currentTimeUtc();
    while (Brio::System::currentTimeUtc() <= begin) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  // Gives one of those back.
  void freeOne(std::vector<Handle>& all) {
    this->release(0, all.back());
    all.pop_back();
    this->reportAll(0);
  }
};
TYPED_TEST_SUITE(ResourceState, AllResourceTables, ResourceTableName);

TYPED_TEST(ResourceState, WithoutAFreeIndexARequestFails) {
  auto all = this->exhausted(2);
  const auto handle = this->request(1, 1);
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(static_cast<unsigned>(handle->entryState()), 5U);
  EXPECT_EQ(this->index(handle), 0U);
  EXPECT_EQ(this->request(1, 1), handle);
  EXPECT_EQ(this->request(2, 1)->entryState(), State::entryStateFailed);
  EXPECT_FALSE(this->table_->work());
  EXPECT_EQ(handle->entryState(), State::entryStateFailed);
  EXPECT_EQ(this->table_->indexesTaken(), 2U);
  EXPECT_EQ(this->table_->limit(), 2U);
  // Keys that have one go on.
  EXPECT_EQ(this->request(1, 101)->entryState(), State::entryStateSuccess);
}

TYPED_TEST(ResourceState, AReleasedIndexThatIsNotReportedServesNobody) {
  auto all = this->exhausted(1);
  const auto handle = this->request(1, 1);
  this->release(0, all[0]);
  all.clear();
  EXPECT_FALSE(this->table_->work());
  EXPECT_EQ(handle->entryState(), State::entryStateFailed);
  EXPECT_EQ(this->request(1, 1)->entryState(), State::entryStateFailed);
  EXPECT_TRUE(this->reportAll(0));
  EXPECT_EQ(handle->entryState(), State::entryStateSuccess);
}

TYPED_TEST(ResourceState, FreeIndexesGoFirstComeFirstServed) {
  auto all = this->exhausted(2);
  std::vector<typename TestFixture::Handle> waiting;
  for (std::uint32_t number = 1; number <= 4; ++number) {
    waiting.push_back(this->request(number % 3, number));
  }
  const auto served = [&] {
    std::string text;
    for (const auto& handle : waiting) {
      text += handle->entryState() == State::entryStateSuccess ? '+' : '-';
    }
    return text;
  };
  EXPECT_EQ(served(), "----");
  this->freeOne(all);
  EXPECT_EQ(served(), "+---");
  this->freeOne(all);
  EXPECT_EQ(served(), "++--");
  // One that has been served gives way to the next.
  this->ack(1, waiting[0]);
  this->release(1, waiting[0]);
  waiting[0] = nullptr;
  waiting.erase(waiting.begin());
  this->reportAll(1);
  EXPECT_EQ(served(), "++-");
}

TYPED_TEST(ResourceState, OneThatCeasedToWaitIsPassedOver) {
  auto all = this->exhausted(1);
  auto first = this->request(1, 1);
  const auto second = this->request(1, 2);
  first = nullptr;
  this->expectCounts(2, 1, 0);
  this->freeOne(all);
  EXPECT_EQ(second->entryState(), State::entryStateSuccess);
  this->expectCounts(1, 1, 0);
}

TYPED_TEST(ResourceState, OneThatIsServedIsPublishedOnItsHandlesOnceAndOnNoOther) {
  auto all = this->exhausted(1);
  const auto first = this->request(1, 1);
  const auto sameKey = this->request(2, 1);
  const auto second = this->request(1, 2);
  const FieldWatch watch(first->publisher());
  const FieldWatch sameWatch(sameKey->publisher());
  const FieldWatch otherWatch(second->publisher());
  const std::uint32_t version = first->updateVersion();
  const std::uint64_t before = this->questions();
  this->freeOne(all);
  EXPECT_THAT(watch.fields, ElementsAre(kField<TypeParam>));
  EXPECT_THAT(sameWatch.fields, ElementsAre(kField<TypeParam>));
  EXPECT_THAT(otherWatch.fields, IsEmpty());
  EXPECT_GT(first->updateVersion(), version);
  EXPECT_GT(this->questions(), before) << "waiting operations are asked again";
  EXPECT_NE(this->index(first), 0U);
  EXPECT_EQ(this->index(sameKey), this->index(first));
  EXPECT_EQ(this->record(1)->index, this->index(first));
}

TYPED_TEST(ResourceState, AFailedOneThatIsAskedForAgainHasTheIndexThatIsFree) {
  auto all = this->exhausted(1);
  const auto handle = this->request(1, 1);
  this->clients_[0]->release(all[0], nullptr);
  all.clear();  // nobody has looked for whoever waits
  EXPECT_EQ(this->request(1, 1), handle);
  EXPECT_EQ(handle->entryState(), State::entryStateSuccess);
  EXPECT_FALSE(this->table_->work());
  this->expectCounts(1, 1, 0);
}

TYPED_TEST(ResourceState, OneThatWaitsIsKeptOverARestart) {
  auto all = this->exhausted(1);
  const auto handle = this->request(1, 1);
  const std::uint32_t version = handle->updateVersion();
  this->restart(2);
  const auto again = this->request(1, 1);
  EXPECT_EQ(again->entryState(), State::entryStateSuccess);
  EXPECT_GT(again->updateVersion(), version) << "the client has something to work off";
  EXPECT_NE(this->index(again), this->index(all[0]));
}

TYPED_TEST(ResourceState, PreparedInStagesAndThenReady) {
  this->table_->prepareIs(this->key(1), TestFixture::Stage::preparing);
  const auto handle = this->request(0, 1);
  EXPECT_EQ(static_cast<unsigned>(handle->entryState()), 0U);
  EXPECT_EQ(this->index(handle), 0U);
  this->expectCounts(1, 0, 0);
  const FieldWatch watch(handle->publisher());
  EXPECT_EQ(this->request(0, 1), handle);
  EXPECT_FALSE(this->table_->work());
  EXPECT_THAT(watch.fields, IsEmpty());
  std::uint64_t before = this->questions();
  this->table_->prepareIs(this->key(1), TestFixture::Stage::confirming);
  EXPECT_EQ(static_cast<unsigned>(handle->entryState()), 1U);
  EXPECT_THAT(watch.fields, ElementsAre(kField<TypeParam>));
  EXPECT_GT(this->questions(), before);
  before = this->questions();
  this->table_->prepareIs(this->key(1), TestFixture::Stage::none);
  EXPECT_EQ(handle->entryState(), State::entryStateSuccess);
  EXPECT_NE(this->index(handle), 0U);
  EXPECT_THAT(watch.fields, ElementsAre(kField<TypeParam>, kField<TypeParam>));
  EXPECT_GT(this->questions(), before);
}

TYPED_TEST(ResourceState, OtherKeysDoNotWaitForOneThatIsPrepared) {
  this->table_->prepareIs(this->key(1), TestFixture::Stage::preparing);
  const auto waiting = this->request(0, 1);
  EXPECT_EQ(this->request(0, 2)->entryState(), State::entryStateSuccess);
  EXPECT_EQ(waiting->entryState(), State::entryStateUnresolved);
}

TYPED_TEST(ResourceState, AnOrderForAKeyHoldsUntilItIsTakenBackWhoeverAsks) {
  this->table_->prepareIs(this->key(1), TestFixture::Stage::confirming);
  EXPECT_EQ(this->request(0, 1)->entryState(), State::entryStateInLog);
  this->expectEmpty();
  EXPECT_EQ(this->request(1, 1)->entryState(), State::entryStateInLog);
  this->table_->prepareIs(this->key(1), TestFixture::Stage::none);
  EXPECT_EQ(this->request(0, 1)->entryState(), State::entryStateSuccess);
}

TYPED_TEST(ResourceState, WhileItIsPreparedAResourceKeepsTheIndexThatItHas) {
  const auto handle = this->held(0, 1);
  const std::uint32_t index = this->index(handle);
  const FieldWatch watch(handle->publisher());
  this->table_->prepareIs(this->key(1), TestFixture::Stage::preparing);
  EXPECT_EQ(handle->entryState(), State::entryStateSuccess);
  EXPECT_EQ(this->request(1, 1)->entryState(), State::entryStateSuccess);
  EXPECT_EQ(this->index(handle), index);
  EXPECT_THAT(watch.fields, IsEmpty());
}

TYPED_TEST(ResourceState, PastTheDeadlineAnUnresolvedOneFailsAndLaterRecovers) {
  this->table_->prepareIs(this->key(1), TestFixture::Stage::preparing);
  this->table_->prepareIs(this->key(2), TestFixture::Stage::confirming);
  const auto first = this->request(0, 1);
  const auto second = this->request(0, 2);
  const auto ready = this->request(0, 3);
  EXPECT_EQ(this->table_->deadline(), 0.0);
  EXPECT_FALSE(this->table_->work()) << "without a deadline nothing fails";
  this->table_->deadlineIs(3600);
  EXPECT_FALSE(this->table_->work());
  EXPECT_EQ(first->entryState(), State::entryStateUnresolved);
  const FieldWatch watch(first->publisher());
  const std::uint64_t before = this->questions();
  this->deadlineHasPassed();
  EXPECT_TRUE(this->table_->work());
  EXPECT_EQ(static_cast<unsigned>(first->entryState()), 6U);
  EXPECT_EQ(static_cast<unsigned>(second->entryState()), 6U);
  EXPECT_EQ(ready->entryState(), State::entryStateSuccess);
  EXPECT_THAT(watch.fields, ElementsAre(kField<TypeParam>));
  EXPECT_GT(this->questions(), before);
  // It stays so, whoever asks.
  EXPECT_FALSE(this->table_->work());
  EXPECT_EQ(this->request(1, 1)->entryState(), State::entryStateFailed6);
  this->table_->prepareIs(this->key(1), TestFixture::Stage::none);
  EXPECT_EQ(first->entryState(), State::entryStateSuccess);
  EXPECT_NE(this->index(first), 0U);
  EXPECT_THAT(watch.fields, Not(IsEmpty()));
  EXPECT_THAT(watch.fields, Each(kField<TypeParam>));
  EXPECT_EQ(second->entryState(), State::entryStateFailed6);
}

TYPED_TEST(ResourceState, AnotherRoundOfPreparationBeginsAnotherDeadline) {
  constexpr double kDeadline = 0.1;
  this->table_->deadlineIs(kDeadline);
  this->table_->prepareIs(this->key(1), TestFixture::Stage::preparing);
  const auto handle = this->request(0, 1);
  for (int i = 0; i < 1000 && !this->table_->work(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_EQ(handle->entryState(), State::entryStateFailed6);
  const double begin = Brio::System::currentTimeUtc();
  this->table_->prepareIs(this->key(1), TestFixture::Stage::confirming);
  EXPECT_EQ(handle->entryState(), State::entryStateInLog);
  const bool failed = this->table_->work();
  if (Brio::System::currentTimeUtc() - begin < kDeadline) {
    EXPECT_FALSE(failed);
  }
  this->deadlineHasPassed();
  this->table_->work();
  EXPECT_EQ(handle->entryState(), State::entryStateFailed6);
}

TYPED_TEST(ResourceState, ARefusedOneFailsAndComesBack) {
  this->table_->refusedIs(this->key(1), true);
  const auto handle = this->request(0, 1);
  EXPECT_EQ(static_cast<unsigned>(handle->entryState()), 3U);
  EXPECT_EQ(this->index(handle), 0U);
  this->expectCounts(1, 0, 0);
  EXPECT_EQ(this->request(1, 1)->entryState(), State::entryStateFailed3);
  EXPECT_EQ(this->request(1, 2)->entryState(), State::entryStateSuccess);
  const FieldWatch watch(handle->publisher());
  const std::uint64_t before = this->questions();
  this->table_->refusedIs(this->key(1), false);
  EXPECT_EQ(handle->entryState(), State::entryStateSuccess);
  EXPECT_NE(this->index(handle), 0U);
  EXPECT_THAT(watch.fields, ElementsAre(kField<TypeParam>));
  EXPECT_GT(this->questions(), before);
}

TYPED_TEST(ResourceState, ARefusedOneKeepsTheIndexThatItHas) {
  const auto handle = this->held(0, 1);
  const std::uint32_t index = this->index(handle);
  const std::uint32_t version = handle->updateVersion();
  const FieldWatch watch(handle->publisher());
  this->table_->refusedIs(this->key(1), true);
  EXPECT_EQ(handle->entryState(), State::entryStateFailed3);
  EXPECT_GT(handle->updateVersion(), version);
  this->expectCounts(1, 1, 0);
  EXPECT_EQ(this->record(1)->index, index);
  EXPECT_EQ(this->request(1, 1)->entryState(), State::entryStateFailed3);
  this->table_->refusedIs(this->key(1), false);
  EXPECT_EQ(handle->entryState(), State::entryStateSuccess);
  EXPECT_EQ(this->index(handle), index);
  EXPECT_THAT(watch.fields, ElementsAre(kField<TypeParam>, kField<TypeParam>));
  EXPECT_EQ(handle->updateVersion(), this->record(1)->updateVersion);
}

TYPED_TEST(ResourceState, OfWhatIsRefusedAndPreparedTheRefusalComesFirst) {
  this->table_->prepareIs(this->key(1), TestFixture::Stage::preparing);
  this->table_->refusedIs(this->key(1), true);
  const auto handle = this->request(0, 1);
  EXPECT_EQ(handle->entryState(), State::entryStateFailed3);
  this->table_->prepareIs(this->key(1), TestFixture::Stage::none);
  EXPECT_EQ(handle->entryState(), State::entryStateFailed3);
  this->table_->prepareIs(this->key(1), TestFixture::Stage::confirming);
  this->table_->refusedIs(this->key(1), false);
  EXPECT_EQ(handle->entryState(), State::entryStateInLog);
  this->table_->prepareIs(this->key(1), TestFixture::Stage::none);
  EXPECT_EQ(handle->entryState(), State::entryStateSuccess);
}

}  // namespace
