#include <set>

#include "FlipByte.h"
#include "ResourceFixture.h"

// What another agent finds in the store of an earlier one.

namespace {

using ResourceTest::AllResourceTables;
using ResourceTest::LogWatch;
using ResourceTest::ResourceFixture;
using ResourceTest::ResourceTableName;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using State = Asic::EntryState;

template <class T>
class ResourceRestart : public ResourceFixture<T> {};
TYPED_TEST_SUITE(ResourceRestart, AllResourceTables, ResourceTableName);

TYPED_TEST(ResourceRestart, AKnownKeyAnswersAtOnceWithWhatItHad) {
  const auto first = this->held(0, 1);
  const auto second = this->held(1, 2);
  ASSERT_TRUE(this->table_->change(this->key(1)));
  this->ack(0, first);
  this->reportAll();
  ASSERT_NE(first->updateVersion(), second->updateVersion());
  this->restart();
  this->expectCounts(2, 2, 0);
  // Not in the order of the first time.
  const auto secondAgain = this->request(1, 2);
  const auto firstAgain = this->request(0, 1);
  EXPECT_EQ(firstAgain->entryState(), State::entryStateSuccess);
  EXPECT_EQ(secondAgain->entryState(), State::entryStateSuccess);
  EXPECT_EQ(this->index(firstAgain), this->index(first));
  EXPECT_EQ(this->index(secondAgain), this->index(second));
  EXPECT_EQ(firstAgain->updateVersion(), first->updateVersion());
  EXPECT_EQ(secondAgain->updateVersion(), second->updateVersion());
  EXPECT_EQ(this->acked(0, 1), first->updateVersion());
  EXPECT_EQ(this->acked(1, 2), second->updateVersion());
}

TYPED_TEST(ResourceRestart, NewKeysGetIndexesThatNobodyHas) {
  std::set<std::uint32_t> indexes;
  std::vector<typename TestFixture::Handle> handles;
  for (std::uint32_t number = 1; number <= this->kLimit - 1; ++number) {
    handles.push_back(this->held(0, number));
    indexes.insert(this->index(handles.back()));
  }
  this->restart();
  const auto added = this->request(0, 100);
  EXPECT_TRUE(indexes.insert(this->index(added)).second);
  EXPECT_EQ(this->request(0, 101)->entryState(), State::entryStateFailed);
}

TYPED_TEST(ResourceRestart, WhatIsAskedForAndAckedAgainStaysAfterReplay) {
  const auto handle = this->held(0, 1);
  this->restart();
  const auto again = this->held(0, 1);
  this->table_->replayComplete();
  this->reportAll();
  this->expectCounts(1, 1, 0);
  EXPECT_EQ(this->acked(0, 1), again->updateVersion());
  EXPECT_EQ(this->index(again), this->index(handle));
}

TYPED_TEST(ResourceRestart, WhatNobodyAskedForIsFreeWhenTheNewestVersionIsReported) {
  (void)this->held(0, 1);
  (void)this->held(1, 2);
  (void)this->logged(0);
  (void)this->logged(1);
  const std::uint64_t last = this->published(0);
  const auto index = this->record(1)->index;
  this->restart();
  this->reportAll(1);
  this->expectCounts(2, 2, 0);
  this->table_->replayComplete();
  this->expectCounts(1, 1, 1);  // the version of the second has been reported
  EXPECT_EQ(this->released(0, index), last);
  EXPECT_EQ(this->holdRecords().size(), 0U);
  EXPECT_FALSE(this->report(0, last - 1));
  this->expectCounts(1, 1, 1);
  EXPECT_TRUE(this->report(0, last));
  this->expectEmpty();
}

TYPED_TEST(ResourceRestart, AClientThatDoesNotAskAgainLetsGoBesideOneThatDoes) {
  (void)this->held(0, 1);
  (void)this->held(1, 1);
  this->restart();
  auto handle = this->held(1, 1);
  this->table_->replayComplete();
  EXPECT_EQ(this->acked(0, 1), std::nullopt);
  EXPECT_TRUE(this->acked(1, 1).has_value());
  this->reportAll();
  this->expectCounts(1, 1, 0);
  this->release(1, handle);
  handle = nullptr;
  this->reportAll();
  this->expectEmpty();
}

TYPED_TEST(ResourceRestart, WhatWasAskedForAndNeverHeldIsFreeAfterReplay) {
  const auto asked = this->request(0, 1);
  const auto other = this->request(0, 2);
  this->restart();
  this->expectCounts(2, 2, 0);
  const auto again = this->request(0, 2);
  this->table_->replayComplete();
  this->expectCounts(1, 1, 0);
  EXPECT_EQ(this->index(again), this->index(other));
}

TYPED_TEST(ResourceRestart, AReleaseGoesOnWaitingForItsReport) {
  auto handle = this->held(0, 1);
  const std::uint32_t index = this->index(handle);
  const std::uint64_t version = this->release(0, handle);
  (void)this->logged(0);
  this->restart();
  handle = nullptr;
  this->expectCounts(1, 1, 1);
  EXPECT_EQ(this->released(0, index), version);
  this->table_->replayComplete();
  this->expectCounts(1, 1, 1);
  this->report(0, version - 1);
  this->expectCounts(1, 1, 1);
  this->report(0, version);
  this->expectEmpty();
}

TYPED_TEST(ResourceRestart, AReleaseThatWasReportedMeanwhileIsTakenByTheFirstWork) {
  auto handle = this->held(0, 1);
  const std::uint64_t version = this->release(0, handle);
  this->hardware_->report(this->kTables[0], version, this->logs_[0]->incarnation());
  this->restart();
  handle = nullptr;
  this->expectCounts(1, 1, 1);
  EXPECT_TRUE(this->table_->work());
  this->expectEmpty();
}

TYPED_TEST(ResourceRestart, AReleaseThatNeverGotItsVersionIsSettledByTheEndOfReplay) {
  auto handle = this->held(0, 1);
  const std::uint32_t index = this->index(handle);
  this->clients_[0]->release(handle, this->unlogged(0));
  (void)this->logged(0);
  this->restart();
  handle = nullptr;
  EXPECT_EQ(this->released(0, index), this->kNotYet);
  this->reportAll();
  this->expectCounts(1, 1, 1);
  const auto last = this->logged(0);
  this->table_->replayComplete();
  EXPECT_EQ(this->released(0, index), last->entryTableVersion().version.value);
  this->expectCounts(1, 1, 1);
  this->reportAll();
  this->expectEmpty();
}

TYPED_TEST(ResourceRestart, AnOldIndexThatWasNeverAckedIsSettledByTheEndOfReplay) {
  const auto handle = this->held(0, 1);
  ASSERT_TRUE(this->table_->change(this->key(1)));
  this->restart();
  const auto again = this->held(0, 1);
  this->table_->replayComplete();
  this->expectCounts(1, 2, 1);
  this->reportAll();
  this->expectCounts(1, 1, 0);
  EXPECT_EQ(this->index(again), this->index(handle));
}

TYPED_TEST(ResourceRestart, TheEndOfReplayTwiceDoesNoMore) {
  const auto handle = this->held(0, 1);
  this->restart();
  const auto again = this->held(0, 1);
  this->table_->replayComplete();
  this->table_->replayComplete();
  this->reportAll();
  this->expectCounts(1, 1, 0);
  EXPECT_TRUE(this->acked(0, 1).has_value());
}

TYPED_TEST(ResourceRestart, AHoldOfAnEarlierRunCanBeReleasedWithoutAnAck) {
  (void)this->held(0, 1);
  this->restart();
  auto handle = this->request(0, 1);
  this->release(0, handle);
  handle = nullptr;
  this->expectCounts(1, 1, 1);
  this->reportAll();
  this->expectEmpty();
}

TYPED_TEST(ResourceRestart, SeveralRunsKeepWhatIsHeld) {
  const auto handle = this->held(0, 1);
  for (int run = 0; run < 5; ++run) {
    this->restart();
    const auto again = this->held(0, 1);
    EXPECT_EQ(this->index(again), this->index(handle));
    this->table_->replayComplete();
    this->reportAll();
    this->expectCounts(1, 1, 0);
  }
}

TYPED_TEST(ResourceRestart, ARecordWithAnIndexOutOfRangeIsDropped) {
  (void)this->held(0, 1);
  (void)this->held(0, 2);
  for (std::uint32_t number = 3; number <= this->kLimit; ++number) {
    (void)this->held(0, number);
  }
  auto record = *this->record(2);
  record.index = this->kLimit + 1;
  this->resourceRecords().recordIs(record);
  this->restart();
  this->expectCounts(this->kLimit - 1, this->kLimit - 1, 0);
  const auto handle = this->request(0, 2);
  EXPECT_EQ(handle->entryState(), State::entryStateSuccess);
  EXPECT_LE(this->index(handle), this->kLimit);
}

TYPED_TEST(ResourceRestart, OfTwoRecordsWithOneIndexOneIsDropped) {
  (void)this->held(0, 1);
  (void)this->held(0, 2);
  auto record = *this->record(2);
  record.index = this->record(1)->index;
  this->resourceRecords().recordIs(record);
  this->restart();
  this->expectCounts(1, 1, 0);
  const auto first = this->request(0, 1);
  const auto second = this->request(0, 2);
  EXPECT_NE(this->index(first), this->index(second));
  EXPECT_EQ(first->entryState(), State::entryStateSuccess);
  EXPECT_EQ(second->entryState(), State::entryStateSuccess);
}

TYPED_TEST(ResourceRestart, AReleaseOfAnIndexOutOfRangeIsDropped) {
  PactResourceTable::ReleaseRecord release;
  release.key = {this->kLimit + 1, this->id(0)};
  release.version = Asic::LogVersion{1};
  this->releaseRecords().recordIs(release);
  release.key = {0, this->id(0)};
  this->releaseRecords().recordIs(release);
  this->restart();
  this->expectEmpty();
}

TYPED_TEST(ResourceRestart, ASmallerLimitDropsWhatIsBeyondIt) {
  for (std::uint32_t number = 1; number <= 4; ++number) {
    (void)this->held(0, number);
  }
  this->restart(2);
  this->expectCounts(2, 2, 0);
}

// ---- damage

TYPED_TEST(ResourceRestart, OfDamagedResourcesTheOthersStay) {
  for (std::uint32_t number = 1; number <= 4; ++number) {
    (void)this->held(0, number);
  }
  const auto kept = this->record(2)->index;
  auto& map = this->resourceRecords();
  bool found = false;
  const auto& record = map.find(this->key(3), found);
  ASSERT_TRUE(found);
  TestSupport::flipByte(this->root_.path(), map, &record.number);
  this->restart();
  EXPECT_EQ(this->table_->entrys(), 3U);
  const auto handle = this->request(0, 2);
  EXPECT_EQ(this->index(handle), kept);
  EXPECT_EQ(this->request(0, 3)->entryState(), State::entryStateSuccess);
}

TYPED_TEST(ResourceRestart, OverDamagedHoldsTheTableStarts) {
  const auto handle = this->held(0, 1);
  (void)this->held(1, 2);
  auto& map = this->holdRecords();
  bool found = false;
  const auto& hold = map.find({this->record(1)->number, this->id(0)}, found);
  ASSERT_TRUE(found);
  TestSupport::flipByte(this->root_.path(), map, &hold.acked);
  this->restart();
  const auto again = this->held(0, 1);
  EXPECT_EQ(this->index(again), this->index(handle));
  EXPECT_EQ(this->acked(0, 1), again->updateVersion());
  this->table_->replayComplete();
  this->reportAll();
  this->expectCounts(1, 1, 0);
}

TYPED_TEST(ResourceRestart, OverDamagedReleasesTheTableStarts) {
  auto first = this->held(0, 1);
  auto second = this->held(0, 2);
  const std::uint32_t index = this->index(first);
  this->release(0, first);
  this->release(0, second);
  auto& map = this->releaseRecords();
  bool found = false;
  const auto& release = map.find({index, this->id(0)}, found);
  ASSERT_TRUE(found);
  TestSupport::flipByte(this->root_.path(), map, &release.version);
  first = nullptr;
  second = nullptr;
  this->restart();
  EXPECT_EQ(this->table_->releases(), 1U);
  this->table_->replayComplete();
  this->reportAll();
  this->expectEmpty();
}

TYPED_TEST(ResourceRestart, AWholeStoreIsNotReported) {
  const auto handle = this->held(0, 1);
  const LogWatch reports;
  this->restart();
  EXPECT_THAT(reports.texts, IsEmpty());
}

TYPED_TEST(ResourceRestart, DamageInAHoldThatNobodyClaimsAgainGoesWithIt) {
  (void)this->held(0, 1);
  (void)this->held(0, 2);
  this->restart();
  auto& map = this->holdRecords();
  const PactResourceTable::UseKey key{this->record(1)->number, this->id(0)};
  bool found = false;
  const auto& hold = map.find(key, found);
  ASSERT_TRUE(found);
  TestSupport::flipByte(this->root_.path(), map, &hold.acked);
  this->table_->replayComplete();
  (void)map.find(key, found);
  EXPECT_FALSE(found);
  EXPECT_EQ(map.size(), 0U);
  EXPECT_FALSE(map.damaged());
  const auto handle = this->request(1, 3);
  EXPECT_EQ(handle->entryState(), State::entryStateSuccess);
}

}  // namespace
