#include "ResourceFixture.h"

// A resource gets another index while clients use it.

namespace {

using ResourceTest::AllResourceTables;
using ResourceTest::EgressRemarkProfile;
using ResourceTest::FieldWatch;
using ResourceTest::ResourceFixture;
using ResourceTest::ResourceTableName;
using testing::ElementsAre;
using testing::IsEmpty;
using State = Asic::EntryState;

template <class T>
constexpr std::uint32_t kField = std::is_same_v<T, EgressRemarkProfile> ? 518 : 517;

template <class T>
class ResourceChange : public ResourceFixture<T> {};
TYPED_TEST_SUITE(ResourceChange, AllResourceTables, ResourceTableName);

TYPED_TEST(ResourceChange, GivesAnotherIndexAndSaysSoOnAllHandles) {
  const auto first = this->held(0, 1);
  const auto second = this->request(1, 1);
  const auto other = this->request(0, 2);
  const std::uint32_t index = this->index(first);
  const std::uint32_t version = first->updateVersion();
  const FieldWatch watch(first->publisher());
  const FieldWatch secondWatch(second->publisher());
  const FieldWatch otherWatch(other->publisher());
  const std::uint64_t before = this->questions();
  EXPECT_TRUE(this->table_->change(this->key(1)));
  EXPECT_NE(this->index(first), index);
  EXPECT_NE(this->index(first), this->index(other));
  EXPECT_EQ(this->index(second), this->index(first));
  EXPECT_GT(first->updateVersion(), version);
  EXPECT_EQ(second->updateVersion(), first->updateVersion());
  EXPECT_EQ(first->entryState(), State::entryStateSuccess);
  EXPECT_THAT(watch.fields, ElementsAre(kField<TypeParam>));
  EXPECT_THAT(secondWatch.fields, ElementsAre(kField<TypeParam>));
  EXPECT_THAT(otherWatch.fields, IsEmpty());
  EXPECT_EQ(this->record(1)->index, this->index(first));
  EXPECT_EQ(this->record(1)->updateVersion, first->updateVersion());
  EXPECT_EQ(this->acked(0, 1), version) << "the client has not worked it off";
  EXPECT_GT(this->questions(), before);
}

TYPED_TEST(ResourceChange, TheOldIndexIsFreeWhenTheAckOfTheHolderIsReported) {
  const auto handle = this->held(0, 1);
  const std::uint32_t old = this->index(handle);
  ASSERT_TRUE(this->table_->change(this->key(1)));
  this->expectCounts(1, 2, 1);
  EXPECT_EQ(this->released(0, old), this->kNotYet);
  this->reportAll();
  this->expectCounts(1, 2, 1);
  const std::uint64_t version = this->ack(0, handle);
  EXPECT_EQ(this->released(0, old), version);
  EXPECT_EQ(this->acked(0, 1), handle->updateVersion());
  EXPECT_FALSE(this->report(0, version - 1));
  this->expectCounts(1, 2, 1);
  EXPECT_TRUE(this->report(0, version));
  this->expectCounts(1, 1, 0);
}

TYPED_TEST(ResourceChange, TheOldIndexWaitsForEveryHolder) {
  const auto first = this->held(0, 1);
  const auto second = this->held(1, 1);
  const auto asked = this->request(2, 1);
  const std::uint32_t old = this->index(first);
  ASSERT_TRUE(this->table_->change(this->key(1)));
  EXPECT_EQ(this->released(0, old), this->kNotYet);
  EXPECT_EQ(this->released(1, old), this->kNotYet);
  EXPECT_EQ(this->released(2, old), std::nullopt) << "it holds nothing";
  this->ack(0, first);
  this->reportAll();
  this->expectCounts(1, 2, 1);
  this->ack(2, asked);
  this->reportAll();
  this->expectCounts(1, 2, 1);
  this->ack(1, second);
  this->expectCounts(1, 2, 1);
  this->reportAll();
  this->expectCounts(1, 1, 0);
}

TYPED_TEST(ResourceChange, AReleaseSaysWhenTheOldIndexIsFreeToo) {
  auto handle = this->held(0, 1);
  const std::uint32_t old = this->index(handle);
  ASSERT_TRUE(this->table_->change(this->key(1)));
  const std::uint32_t index = this->index(handle);
  const std::uint64_t version = this->release(0, handle);
  EXPECT_EQ(this->released(0, old), version);
  EXPECT_EQ(this->released(0, index), version);
  handle = nullptr;
  this->report(0, version - 1);
  this->expectCounts(1, 2, 2);
  this->report(0, version);
  this->expectEmpty();
}

TYPED_TEST(ResourceChange, AnAckThatHadNothingToDoFreesTheOldIndex) {
  const auto handle = this->held(0, 1);
  this->reportAll();
  ASSERT_TRUE(this->table_->change(this->key(1)));
  this->clients_[0]->ackUpdate(handle, handle->updateVersion(), nullptr);
  this->table_->work();
  this->expectCounts(1, 1, 0);
}

TYPED_TEST(ResourceChange, WhatWasPublishedBeforeItMustBeReportedWhateverTheAckSays) {
  const auto handle = this->held(0, 1);
  const std::uint32_t old = this->index(handle);
  const auto early = this->logged(0);
  const auto late = this->logged(0);
  ASSERT_TRUE(this->table_->change(this->key(1)));
  this->clients_[0]->ackUpdate(handle, handle->updateVersion(), early);
  EXPECT_EQ(this->released(0, old), late->entryTableVersion().version.value);
  this->report(0, early->entryTableVersion().version.value);
  this->expectCounts(1, 2, 1);
  this->reportAll();
  this->expectCounts(1, 1, 0);
}

TYPED_TEST(ResourceChange, AnAckBeforeTheEntryHasAVersionWaitsForIt) {
  const auto handle = this->held(0, 1);
  const std::uint32_t old = this->index(handle);
  ASSERT_TRUE(this->table_->change(this->key(1)));
  const auto entry = this->unlogged(0);
  this->clients_[0]->ackUpdate(handle, handle->updateVersion(), entry);
  this->reportAll();
  this->expectCounts(1, 2, 1);
  const auto own = this->logged(0);
  entry->versionIs(own->entryTableVersion().version.value);
  this->table_->work();
  EXPECT_EQ(this->released(0, old), this->published(0));
  this->expectCounts(1, 2, 1);
  this->reportAll();
  this->expectCounts(1, 1, 0);
}

TYPED_TEST(ResourceChange, WithoutHoldersFreesTheOldIndexAtOnce) {
  const auto handle = this->request(0, 1);
  const std::uint32_t old = this->index(handle);
  ASSERT_TRUE(this->table_->change(this->key(1)));
  EXPECT_NE(this->index(handle), old);
  this->expectCounts(1, 1, 0);
}

TYPED_TEST(ResourceChange, AfterAReleaseTheOldIndexWaitsForItsReport) {
  const auto handle = this->held(0, 1);
  const std::uint32_t old = this->index(handle);
  const std::uint64_t version = this->release(0, handle);
  ASSERT_TRUE(this->table_->change(this->key(1)));
  EXPECT_EQ(this->released(0, old), version);
  this->expectCounts(1, 2, 1);
  this->reportAll(0);
  this->expectCounts(1, 1, 0);
  EXPECT_NE(this->index(handle), old);
}

TYPED_TEST(ResourceChange, TwoInARowReserveBothOldIndexes) {
  const auto handle = this->held(0, 1);
  ASSERT_TRUE(this->table_->change(this->key(1)));
  ASSERT_TRUE(this->table_->change(this->key(1)));
  this->expectCounts(1, 3, 2);
  this->ack(0, handle);
  this->expectCounts(1, 3, 2);
  this->reportAll(0);
  this->expectCounts(1, 1, 0);
}

TYPED_TEST(ResourceChange, AnAckOfAnOlderVersionFreesOnlyWhatThatVersionReplaced) {
  const auto handle = this->held(0, 1);
  const std::uint32_t first = this->index(handle);
  ASSERT_TRUE(this->table_->change(this->key(1)));
  const std::uint32_t second = this->index(handle);
  const std::uint32_t version = handle->updateVersion();
  ASSERT_TRUE(this->table_->change(this->key(1)));
  const auto entry = this->logged(0);
  this->clients_[0]->ackUpdate(handle, version, entry);
  EXPECT_EQ(this->released(0, first), entry->entryTableVersion().version.value);
  EXPECT_EQ(this->released(0, second), this->kNotYet);
  this->reportAll();
  this->expectCounts(1, 2, 1);
  this->ack(0, handle);
  this->reportAll();
  this->expectCounts(1, 1, 0);
}

TYPED_TEST(ResourceChange, WithoutAFreeIndexIsRefusedAndChangesNothing) {
  this->restart(1);
  const auto handle = this->held(0, 1);
  const FieldWatch watch(handle->publisher());
  const std::uint32_t index = this->index(handle);
  const std::uint32_t version = handle->updateVersion();
  EXPECT_FALSE(this->table_->change(this->key(1)));
  EXPECT_EQ(this->index(handle), index);
  EXPECT_EQ(handle->updateVersion(), version);
  EXPECT_EQ(this->record(1)->updateVersion, version);
  EXPECT_EQ(this->record(1)->index, index);
  EXPECT_THAT(watch.fields, IsEmpty());
  this->expectCounts(1, 1, 0);
}

TYPED_TEST(ResourceChange, OfAKeyThatIsUnknownOrNotReadyIsRefused) {
  EXPECT_FALSE(this->table_->change(this->key(1)));
  this->expectEmpty();
  this->table_->prepareIs(this->key(2), TestFixture::Stage::preparing);
  const auto preparing = this->request(0, 2);
  EXPECT_FALSE(this->table_->change(this->key(2)));
  EXPECT_EQ(this->index(preparing), 0U);
  const auto refused = this->held(0, 3);
  this->table_->refusedIs(this->key(3), true);
  const std::uint32_t version = refused->updateVersion();
  EXPECT_FALSE(this->table_->change(this->key(3)));
  EXPECT_EQ(refused->updateVersion(), version);
  this->expectCounts(2, 1, 0);
}

TYPED_TEST(ResourceChange, TheNewIndexIsWhatARestartFinds) {
  const auto handle = this->held(0, 1);
  const std::uint32_t old = this->index(handle);
  ASSERT_TRUE(this->table_->change(this->key(1)));
  this->restart();
  this->expectCounts(1, 2, 1);
  EXPECT_EQ(this->released(0, old), this->kNotYet);
  const auto again = this->request(0, 1);
  EXPECT_EQ(this->index(again), this->index(handle));
  EXPECT_EQ(again->updateVersion(), handle->updateVersion());
  EXPECT_NE(this->acked(0, 1), again->updateVersion()) << "the client has it to work off";
}

}  // namespace
