#include <type_traits>
#include <utility>

#include "FlipByte.h"
#include "ResourceFixture.h"

// What must hold when several things come together: clients that go, changes on top of changes,
// queues of those that do not want any more, and damage.

namespace {

using namespace ResourceTest;
using State = Asic::EntryState;
using testing::Contains;
using testing::HasSubstr;
template <class T>
class ResourceCare : public ResourceFixture<T> {};
TYPED_TEST_SUITE(ResourceCare, AllResourceTables, ResourceTableName);

TYPED_TEST(ResourceCare, ARefusedOneDoesNotStandInTheWayOfThoseBehindIt) {
  this->restart(1);
  auto all = this->held(0, 100);
  const auto first = this->request(1, 1);
  const auto second = this->request(1, 2);
  this->table_->refusedIs(this->key(1), true);
  this->release(0, all);
  all = nullptr;
  this->reportAll(0);
  EXPECT_EQ(second->entryState(), State::entryStateSuccess);
  this->table_->work();
  EXPECT_EQ(this->request(1, 2)->entryState(), State::entryStateSuccess);
  EXPECT_EQ(this->table_->indexesTaken(), 1U);
}

TYPED_TEST(ResourceCare, APreparedOneDoesNotStandInTheWayOfThoseBehindIt) {
  this->restart(1);
  auto all = this->held(0, 100);
  const auto first = this->request(1, 1);
  const auto second = this->request(1, 2);
  this->table_->prepareIs(this->key(1), TestFixture::Stage::preparing);
  this->release(0, all);
  all = nullptr;
  this->reportAll(0);
  EXPECT_EQ(second->entryState(), State::entryStateSuccess);
  EXPECT_EQ(this->table_->indexesTaken(), 1U);
}

TYPED_TEST(ResourceCare, AnAckOfAnotherResourceDoesNotFreeAnOldIndex) {
  this->restart(4);
  const auto first = this->held(0, 1);
  const std::uint32_t index = this->index(first);
  ASSERT_TRUE(this->table_->change(this->key(1)));
  this->ack(0, first);
  this->reportAll();
  ASSERT_EQ(this->table_->indexesTaken(), 1U);
  // The freed index goes to another key of the same client.
  std::vector<typename TestFixture::Handle> more;
  typename TestFixture::Handle second;
  for (std::uint32_t number = 2; number <= 4; ++number) {
    more.push_back(this->held(0, number));
    if (this->index(more.back()) == index) second = more.back();
  }
  ASSERT_NE(second, nullptr);
  // make room for the change
  for (auto& handle : more) {
    if (handle != second) {
      this->release(0, handle);
      handle = nullptr;
      break;
    }
  }
  this->reportAll();
  ASSERT_TRUE(this->table_->change(second->key()));
  ASSERT_EQ(this->released(0, index), this->kNotYet);
  this->ack(0, first);
  EXPECT_EQ(this->released(0, index), this->kNotYet) << "nobody has acked the second one";
}

TYPED_TEST(ResourceCare, AnAckOfAnOlderVersionDoesNotFreeTheIndexThatItStandsFor) {
  const auto handle = this->held(0, 1);
  ASSERT_TRUE(this->table_->change(this->key(1)));
  const std::uint32_t version = handle->updateVersion();
  const std::uint32_t inUse = this->index(handle);
  ASSERT_TRUE(this->table_->change(this->key(1)));
  this->clients_[0]->ackUpdate(handle, version, this->logged(0));
  EXPECT_EQ(this->released(0, inUse), this->kNotYet);
}

TYPED_TEST(ResourceCare, AChangeBeforeReplayKeepsTheIndexOfAHoldOfAnEarlierRun) {
  const auto handle = this->held(0, 1);
  const std::uint32_t old = this->index(handle);
  this->restart();
  ASSERT_TRUE(this->table_->change(this->key(1)));
  EXPECT_EQ(this->table_->indexesTaken(), 2U) << "the chip uses " << old;
}

TYPED_TEST(ResourceCare, AChangeKeepsTheIndexOfAHoldWhoseHandleIsGone) {
  auto handle = this->held(0, 1);
  handle = nullptr;
  ASSERT_TRUE(this->table_->change(this->key(1)));
  EXPECT_EQ(this->table_->indexesTaken(), 2U);
}

TYPED_TEST(ResourceCare, TheEndOfReplayDoesNotSettleWhatAClientOfThisRunStillHasToAck) {
  const auto handle = this->held(0, 1);
  ASSERT_TRUE(this->table_->change(this->key(1)));
  const std::uint32_t taken = this->table_->indexesTaken();
  this->table_->replayComplete();
  this->reportAll();
  EXPECT_EQ(this->table_->indexesTaken(), taken) << "the client has not acked";
}

TYPED_TEST(ResourceCare, TheEndOfReplayDoesNotSettleAReleaseOfThisRunThatWaitsForItsVersion) {
  auto handle = this->held(0, 1);
  const auto entry = this->unlogged(0);
  this->clients_[0]->release(handle, entry);
  handle = nullptr;
  this->table_->replayComplete();
  this->reportAll();
  EXPECT_EQ(this->table_->indexesTaken(), 1U);
}

TYPED_TEST(ResourceCare, AHoldOfALostResourceIsNotTakenForOneOfANewResource) {
  (void)this->held(0, 1);
  auto record = *this->record(1);
  record.index = this->kLimit + 1;
  this->resourceRecords().recordIs(record);
  this->restart();
  auto handle = this->held(0, 2);
  handle = nullptr;
  EXPECT_EQ(this->table_->entrys(), 1U) << "client 0 holds it";
  EXPECT_EQ(this->table_->indexesTaken(), 1U);
}

TYPED_TEST(ResourceCare, AHoldOfALostResourceIsNotReleasedForANewResource) {
  (void)this->held(0, 1);
  auto record = *this->record(1);
  record.index = this->kLimit + 1;
  this->resourceRecords().recordIs(record);
  this->restart();
  auto handle = this->held(0, 2);
  this->release(0, handle);
  handle = nullptr;
  this->reportAll();
  EXPECT_EQ(this->table_->indexesTaken(), 0U);
  this->expectEmpty();
}

TYPED_TEST(ResourceCare, AnEntryThatFailsDoesNotFreeWhatALaterReleaseWaitsFor) {
  auto handle = this->held(0, 1);
  const auto entry = this->unlogged(0);
  this->clients_[0]->release(handle, entry);
  this->ack(0, handle);
  this->release(0, handle);
  handle = nullptr;
  entry->entryStateIs(State::entryStateFailed);
  this->table_->work();
  EXPECT_EQ(this->table_->indexesTaken(), 1U) << "the later release is not reported";
}

TYPED_TEST(ResourceCare, AnUnloggedReleaseThatWasTakenBackDoesNotFreeTheIndexOfALaterOne) {
  auto handle = this->held(0, 1);
  const auto entry = this->unlogged(0);
  this->clients_[0]->release(handle, entry);
  this->ack(0, handle);
  const auto late = this->unlogged(0);
  this->clients_[0]->release(handle, late);
  handle = nullptr;
  entry->versionIs(this->logged(0)->entryTableVersion().version.value);
  this->reportAll();
  EXPECT_EQ(this->table_->indexesTaken(), 1U) << "the later release has no version yet";
}

TYPED_TEST(ResourceCare, ANewKeyHasTheFreeIndexWhenNobodyWaitsAnyMore) {
  this->restart(1);
  auto all = this->request(0, 100);
  (void)this->request(1, 1);
  all = nullptr;
  const auto handle = this->request(1, 2);
  EXPECT_EQ(handle->entryState(), State::entryStateSuccess);
}

TYPED_TEST(ResourceCare, OneThatAsksAgainDoesNotGoBeforeThoseWhoCameFirst) {
  this->restart(1);
  auto all = this->request(0, 100);
  const auto first = this->request(1, 1);
  const auto second = this->request(1, 2);
  all = nullptr;
  (void)this->request(1, 2);
  this->table_->work();
  EXPECT_EQ(first->entryState(), State::entryStateSuccess);
  EXPECT_EQ(second->entryState(), State::entryStateFailed);
}

TYPED_TEST(ResourceCare, AClientThatIsGoneLeavesNoHandleToAnotherOne) {
  const auto handle = this->held(0, 1);
  this->clients_[0] = nullptr;
  const auto client = this->table_->makeClientInstance();
  client->clientIdIs(this->id(2));
  EXPECT_NE(client->request(this->key(1), nullptr), handle);
}

TYPED_TEST(ResourceCare, AChangeKeepsTheIndexOfAHoldWhoseClientIsGone) {
  const auto handle = this->held(0, 1);
  this->clients_[0] = nullptr;
  const auto client = this->table_->makeClientInstance();
  client->clientIdIs(this->id(2));
  ASSERT_TRUE(this->table_->change(this->key(1)));
  EXPECT_EQ(this->table_->indexesTaken(), 2U);
}

TYPED_TEST(ResourceCare, DamageIsReportedAtTheStart) {
  (void)this->held(0, 1);
  auto& map = this->resourceRecords();
  bool found = false;
  const auto& record = map.find(this->key(1), found);
  TestSupport::flipByte(this->root_.path(), map, &record.number);
  const LogWatch reports;
  this->restart();
  EXPECT_THAT(reports.texts, Contains(HasSubstr("are lost")));
}

TYPED_TEST(ResourceCare, DamageDoesNotEndAnAck) {
  const auto handle = this->held(0, 1);
  auto& map = this->holdRecords();
  bool found = false;
  const auto& hold = map.find({this->record(1)->number, this->id(0)}, found);
  TestSupport::flipByte(this->root_.path(), map, &hold.acked);
  EXPECT_NO_THROW(this->ack(0, handle));
}

TYPED_TEST(ResourceCare, DamageDoesNotEndARelease) {
  const auto handle = this->held(0, 1);
  auto& map = this->holdRecords();
  bool found = false;
  const auto& hold = map.find({this->record(1)->number, this->id(0)}, found);
  TestSupport::flipByte(this->root_.path(), map, &hold.acked);
  EXPECT_NO_THROW(this->release(0, handle));
}

TYPED_TEST(ResourceCare, DamageDoesNotEndWork) {
  auto handle = this->held(0, 1);
  const std::uint32_t index = this->index(handle);
  this->release(0, handle);
  auto& map = this->releaseRecords();
  bool found = false;
  const auto& hold = map.find({index, this->id(0)}, found);
  TestSupport::flipByte(this->root_.path(), map, &hold.version);
  EXPECT_NO_THROW(this->reportAll());
}
struct DropOnCall : Lumen::Subscriber {
  explicit DropOnCall(std::function<void()> f)
      : Lumen::Subscriber(&DropOnCall::take), call(std::move(f)) {}
  std::function<void()> call;
  static void take(Lumen::Publisher*, Lumen::Subscriber* self, Lumen::FieldId, const void*,
                   const void*) {
    static_cast<DropOnCall*>(self)->call();
  }
};
TYPED_TEST(ResourceCare, AListenerMayLetGoOfAHandleThatIsRevived) {
  this->table_->prepareIs(this->key(1), TestFixture::Stage::preparing);
  auto handle = this->request(0, 1);
  this->table_->deadlineIs(1e-6);
  usleep(20000);
  this->table_->work();
  ASSERT_EQ(handle->entryState(), State::entryStateFailed6);
  auto* publisher = handle->publisher();
  DropOnCall* self = nullptr;
  DropOnCall drop([&] {
    publisher->subscriberRemove(self);
    handle = nullptr;
  });
  self = &drop;
  publisher->subscriberAdd(&drop);
  this->table_->prepareIs(this->key(1), TestFixture::Stage::none);
  this->table_->work();
  EXPECT_EQ(this->table_->indexesTaken(), 0U);
  EXPECT_EQ(this->table_->entrys(), 0U);
}
// Fills a collection with uses of resources that nobody knows.
template <class Map>
void fill(Map& map) {
  using Record =
      std::remove_cvref_t<decltype(std::declval<Map&>().find({}, std::declval<bool&>()))>;
  Record record;
  for (record.key.number = 1'000'000; map.hasRoomFor(record.key); ++record.key.number) {
    map.recordIs(record);
  }
}

TYPED_TEST(ResourceCare, AUseThatTheStoreHasNoRoomForFailsAndIsHadWhenThereIs) {
  this->restart(1);
  const auto first = this->held(0, 1);
  fill(this->holdRecords());
  const auto second = this->request(1, 1);
  EXPECT_EQ(second->entryState(), State::entryStateFailed);
  EXPECT_EQ(first->entryState(), State::entryStateSuccess) << "who holds it has its room";
  EXPECT_EQ(this->request(0, 1)->entryState(), State::entryStateSuccess);
  ASSERT_TRUE(this->holdRecords().recordDel({1'000'000, {}}));
  EXPECT_EQ(this->request(1, 1), second);
  EXPECT_EQ(second->entryState(), State::entryStateSuccess);
  this->ack(1, second);
  EXPECT_TRUE(this->acked(1, 1).has_value());
}

TYPED_TEST(ResourceCare, AReleaseThatTheStoreHasNoRoomForKeepsTheIndex) {
  this->restart(2);
  auto handle = this->held(0, 1);
  const auto index = this->index(handle);
  fill(this->releaseRecords());
  EXPECT_FALSE(this->table_->change(this->key(1))) << "the old index could not be kept";
  EXPECT_EQ(this->index(handle), index);
  this->release(0, handle);
  EXPECT_TRUE(handle->isPostReleaseProtoState());
  handle = nullptr;
  this->reportAll(0);
  EXPECT_EQ(this->table_->indexesTaken(), 1U);
  EXPECT_TRUE(this->acked(0, 1).has_value());
}

}  // namespace
