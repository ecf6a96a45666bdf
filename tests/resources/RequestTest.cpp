#include <set>

#include "ResourceFixture.h"

// Which handle and which index a request gets, and what becomes of a request that nobody keeps.

namespace {

using ResourceTest::AllResourceTables;
using ResourceTest::EgressRemarkProfile;
using ResourceTest::InLifIndex;
using ResourceTest::ResourceFixture;
using ResourceTest::ResourceTableName;
using ResourceTest::VlanEditProfile;
using State = Asic::EntryState;

template <class T>
class ResourceRequest : public ResourceFixture<T> {};
TYPED_TEST_SUITE(ResourceRequest, AllResourceTables, ResourceTableName);

TYPED_TEST(ResourceRequest, TheSameKeyGivesTheSameHandleToAClient) {
  const auto handle = this->request(0, 1);
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(handle->entryState(), State::entryStateSuccess);
  EXPECT_TRUE(handle->key() == this->key(1));
  EXPECT_GE(this->index(handle), 1U);
  EXPECT_LE(this->index(handle), this->kLimit);
  EXPECT_NE(handle->neededEntry(), nullptr);
  EXPECT_FALSE(handle->isPostReleaseProtoState());
  const std::uint32_t version = handle->updateVersion();
  EXPECT_EQ(this->request(0, 1), handle);
  EXPECT_EQ(handle->updateVersion(), version);
  this->expectCounts(1, 1, 0);
}

TYPED_TEST(ResourceRequest, TheSameKeyGivesAllClientsOneIndexAndEachAHandleOfItsOwn) {
  const auto first = this->request(0, 1);
  const auto second = this->request(1, 1);
  const auto third = this->request(2, 1);
  EXPECT_NE(first, second);
  EXPECT_NE(first, third);
  EXPECT_NE(second, third);
  EXPECT_EQ(this->index(second), this->index(first));
  EXPECT_EQ(this->index(third), this->index(first));
  EXPECT_EQ(second->updateVersion(), first->updateVersion());
  // Each finds its own again, in whatever order.
  EXPECT_EQ(this->request(0, 1), first);
  EXPECT_EQ(this->request(1, 1), second);
  EXPECT_EQ(this->request(2, 1), third);
  this->expectCounts(1, 1, 0);
}

TYPED_TEST(ResourceRequest, DifferentKeysGetDifferentIndexes) {
  std::vector<typename TestFixture::Handle> handles;
  std::set<std::uint32_t> indexes;
  for (std::uint32_t number = 1; number <= this->kLimit; ++number) {
    handles.push_back(this->request(number % 3, number));
    indexes.insert(this->index(handles.back()));
    ASSERT_EQ(this->record(number)->index, this->index(handles.back()));
  }
  EXPECT_EQ(indexes.size(), this->kLimit);
  EXPECT_EQ(*indexes.begin(), 1U);
  EXPECT_EQ(*indexes.rbegin(), this->kLimit);
  this->expectCounts(this->kLimit, this->kLimit, 0);
}

TYPED_TEST(ResourceRequest, OneThatNobodyKeepsGivesItsIndexBackAndLeavesNoRecord) {
  auto handle = this->request(0, 1);
  EXPECT_EQ(this->record(1)->index, this->index(handle));
  handle = nullptr;
  this->expectEmpty();
  // However often: nothing leaks.
  for (std::uint32_t i = 0; i < 3 * this->kLimit; ++i) {
    EXPECT_EQ(this->request(0, 1 + i)->entryState(), State::entryStateSuccess);
  }
  this->expectEmpty();
}

TYPED_TEST(ResourceRequest, TheIndexStaysAsLongAsOneClientKeepsItsHandle) {
  auto first = this->request(0, 1);
  auto second = this->request(1, 1);
  auto third = this->request(2, 1);
  const std::uint32_t index = this->index(first);
  second = nullptr;
  first = nullptr;
  this->expectCounts(1, 1, 0);
  EXPECT_EQ(this->index(this->request(1, 1)), index);
  third = nullptr;
  this->expectEmpty();
}

TYPED_TEST(ResourceRequest, HandlesMayOutliveClientsAndTable) {
  const auto handle = this->held(0, 1);
  const auto other = this->request(1, 2);
  const std::uint32_t index = this->index(handle);
  this->stop();
  EXPECT_EQ(this->index(handle), index);
  EXPECT_TRUE(other->key() == this->key(2));
}

TYPED_TEST(ResourceRequest, AClientKeepsTheTable) {
  this->table_ = nullptr;
  const auto handle = this->request(0, 1);
  EXPECT_EQ(handle->entryState(), State::entryStateSuccess);
  EXPECT_EQ(this->clients_[0]->table(), this->clients_[1]->table());
}

using ResourceTableSet = ResourceFixture<InLifIndex>;

TEST_F(ResourceTableSet, EntersItsTablesInTheAgentUnderTheirNames) {
  for (auto& client : clients_) {
    client = nullptr;
  }
  table_ = nullptr;
  auto set = KelpTunnelNiLib::ResourceTableSet::make(agent_);
  EXPECT_EQ(agent_->resourceTables().size(), 3U);
  set.forEach([&](auto& table) {
    EXPECT_EQ(agent_->resourceTable(table.canonicalName()->name()).get(), &table);
  });
  unsigned visited = 0;
  set.remarkProfile = nullptr;
  set.forEach([&](auto&) { ++visited; });
  EXPECT_EQ(visited, 2U);
}

TEST_F(ResourceTableSet, HandsWorkAndTheEndOfReplayToEachOfItsTables) {
  for (auto& client : clients_) {
    client = nullptr;
  }
  table_ = nullptr;
  const auto set = KelpTunnelNiLib::ResourceTableSet::make(agent_);
  const auto hold = [&](auto& table, auto key) {
    const auto client = table.makeClientInstance();
    client->clientIdIs(id(0));
    const auto handle = client->request(key, nullptr);
    client->ackUpdate(handle, 1, nullptr);
    client->release(handle, logged(0));
  };
  hold(*set.inLifIndex, ResourceFixture<InLifIndex>::key(1));
  hold(*set.vlanEditProfile, ResourceFixture<VlanEditProfile>::key(1));
  hold(*set.remarkProfile, ResourceFixture<EgressRemarkProfile>::key(1));
  EXPECT_FALSE(set.work());
  set.replayComplete();
  set.forEach([&](auto& table) { EXPECT_EQ(table.releases(), 1U); });
  hardware_->report(kTables[0], published(0), logs_[0]->incarnation());
  EXPECT_TRUE(set.work());
  set.forEach([&](auto& table) { EXPECT_EQ(table.indexesTaken(), 0U); });
}

using InLifIndexRequest = ResourceFixture<InLifIndex>;

TEST_F(InLifIndexRequest, GivesTwoIndexesThatNoOtherKeyHas) {
  std::vector<Handle> handles;
  std::set<std::uint32_t> indexes;
  for (std::uint32_t number = 1; number <= kLimit; ++number) {
    handles.push_back(request(0, number));
    const auto results = handles.back()->results();
    EXPECT_EQ(results.second, results.first + 1);
    EXPECT_GE(results.first, 1U);
    indexes.insert(results.first);
    indexes.insert(results.second);
  }
  EXPECT_EQ(indexes.size(), 2 * kLimit);
}

using RemarkProfileRequest = ResourceFixture<EgressRemarkProfile>;

TEST_F(RemarkProfileRequest, TheClientDataOfTheFirstRequestWins) {
  const auto first = clients_[0]->request(key(1), {7}, nullptr);
  EXPECT_EQ(first->results().clientData.value, 7U);
  const auto second = clients_[1]->request(key(1), {9}, nullptr);
  EXPECT_EQ(second->results().clientData.value, 7U);
  EXPECT_EQ(clients_[0]->request(key(1), {9}, nullptr)->results().clientData.value, 7U);
  EXPECT_EQ(record(1)->clientData, 7U);
  EXPECT_EQ(clients_[1]->request(key(2), {9}, nullptr)->results().clientData.value, 9U);
}

TEST_F(RemarkProfileRequest, TheFirstClientDataIsKeptOverARestart) {
  auto handle = clients_[0]->request(key(1), {0xfedc}, nullptr);
  ack(0, handle);
  restart();
  const auto again = clients_[1]->request(key(1), {9}, nullptr);
  EXPECT_EQ(again->results().clientData.value, 0xfedcU);
  EXPECT_EQ(index(again), index(handle));
}

TEST_F(RemarkProfileRequest, AKeyThatWasForgottenTakesNewClientData) {
  (void)clients_[0]->request(key(1), {7}, nullptr);
  const auto handle = clients_[1]->request(key(1), {9}, nullptr);
  EXPECT_EQ(handle->results().clientData.value, 9U);
}

TEST_F(RemarkProfileRequest, TheFirstClientDataWinsForAResourceThatWaitsForAnIndex) {
  restart(1);
  auto all = request(0, 1);
  const auto first = clients_[0]->request(key(2), {7}, nullptr);
  const auto second = clients_[1]->request(key(2), {9}, nullptr);
  EXPECT_EQ(second->entryState(), State::entryStateFailed);
  all = nullptr;
  EXPECT_TRUE(table_->work());
  EXPECT_EQ(first->results().clientData.value, 7U);
  EXPECT_EQ(second->results().clientData.value, 7U);
}

}  // namespace
