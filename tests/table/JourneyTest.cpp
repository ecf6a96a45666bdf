#include "TableFixture.h"

namespace {

template <class T>
class Journey : public TestSupport::TableFixture<T> {};
TYPED_TEST_SUITE(Journey, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(Journey, AWriteTravelsToTheLogAndBack) {
  const auto table = this->table();
  int responses = 0;
  const auto handle = table->entryWriteWithResponseHandler(this->key(1), this->entry(1), nullptr,
                                                           [&](const auto&) { ++responses; });
  EXPECT_EQ(handle->entryState(), Asic::EntryState::entryStateUnresolved);
  EXPECT_TRUE(table->entryHas(this->key(1)));
  EXPECT_TRUE(TestSupport::isAsked(table->entryRead(this->key(1)), this->entry(1)));

  EXPECT_EQ(this->pass(), 1U);
  EXPECT_EQ(handle->entryState(), Asic::EntryState::entryStateInLog);
  EXPECT_EQ(handle->logVersion().value, 1U);
  EXPECT_TRUE(TestSupport::isAsked(table->entryRead(this->key(1)), this->entry(1)));
  EXPECT_EQ(table->entrys(), 1U);
  EXPECT_TRUE(table->hasPendingHwWrites());
  EXPECT_EQ(responses, 0);

  this->report(1);
  EXPECT_EQ(handle->entryState(), Asic::EntryState::entryStateSuccess);
  EXPECT_EQ(responses, 1);
  EXPECT_FALSE(table->hasPendingHwWrites());
  EXPECT_FALSE(this->intf()->swTableStatus()->pendingHwWrites());
}

TYPED_TEST(Journey, WhatWasCommittedOutlivesTheAgent) {
  auto table = this->table();
  for (std::uint64_t i = 0; i < 20; ++i) {
    this->commit(table, i);
  }
  (void)table->entryRemove(this->key(3), nullptr);
  this->pass();
  table = nullptr;
  this->restart();
  table = this->table();
  EXPECT_EQ(this->intf()->entryLog()->tableVersion().value, 21U);
  EXPECT_EQ(table->entrys(), 19U);
  EXPECT_FALSE(table->entryHas(this->key(3)));
  unsigned walked = 0;
  for (auto iter = table->entryIteratorConst(); iter; ++iter) {
    ++walked;
  }
  EXPECT_EQ(walked, 19U);
}

}  // namespace
