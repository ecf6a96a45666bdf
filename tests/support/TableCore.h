#pragma once

#include <gmock/gmock.h>

#include "Lumen/MemTrack.h"
#include "TableTest.h"

// What every table must do, whatever its records are: the core of the suites, to be instantiated
// with any table's traits.

namespace TestSupport {

template <class T>
class TableCore : public TableTest<T> {};
TYPED_TEST_SUITE_P(TableCore);

TYPED_TEST_P(TableCore, AWriteTravelsToTheLogAndBack) {
  const auto table = this->table();
  int calls = 0;
  const auto handle = table->entryWriteWithResponseHandler(this->key(1), this->entry(1), nullptr,
                                                           [&](const auto&) { ++calls; });
  EXPECT_EQ(this->state(handle), 0U);
  EXPECT_TRUE(TestSupport::isAsked(table->entryRead(this->key(1)), this->entry(1)));
  EXPECT_EQ(this->pass(), 1U);
  EXPECT_EQ(this->state(handle), 1U);
  EXPECT_EQ(handle->logVersion().value, 1U);
  EXPECT_TRUE(TestSupport::isAsked(this->configRecord(1).entry, this->entry(1)));
  EXPECT_TRUE(TestSupport::isAsked(this->logRecord(1).logEntry, this->entry(1).logEntry));
  EXPECT_TRUE(table->hasPendingHwWrites());
  this->report(1);
  EXPECT_EQ(this->state(handle), 4U);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(this->changeLog().size(), 0U);
  EXPECT_FALSE(this->intf()->swTableStatus()->pendingHwWrites());
}

TYPED_TEST_P(TableCore, ARemoveTravelsToTheLogAndBack) {
  const auto table = this->table();
  this->commit(table, 1);
  this->commit(table, 2);
  const auto handle = this->remove(table, 1);
  EXPECT_FALSE(table->entryHas(this->key(1)));
  this->pass();
  EXPECT_TRUE(this->logRecord(3).isEntryDeleted());
  EXPECT_TRUE(this->configRecord(1).isDeleted != 0);
  EXPECT_EQ(table->entrys(), 1U);
  this->report(3);
  EXPECT_EQ(this->state(handle), 4U);
  EXPECT_EQ(this->log()->entrysInDeletion(this->unit0), 0U);
  EXPECT_TRUE(table->entryRead(this->key(1)).isEq(typename TypeParam::Entry()));
  EXPECT_TRUE(TestSupport::isAsked(table->entryRead(this->key(2)), this->entry(2)));
}

TYPED_TEST_P(TableCore, ARemoveAllEmptiesItsUnit) {
  const auto table = this->table();
  const auto second = this->table(this->unit1);
  for (std::uint64_t i = 0; i < 10; ++i) {
    this->commit(table, i);
    this->commit(second, i);
  }
  table->entryRemoveAll(nullptr);
  EXPECT_EQ(table->entrys(), 0U);
  this->pass();
  EXPECT_TRUE(this->logRecord(21).isTableDeleted());
  EXPECT_EQ(table->entrys(), 0U);
  EXPECT_EQ(second->entrys(), 10U);
  this->report(21);
  EXPECT_EQ(this->log()->tableConfigQuilt(this->unit0)->swTableEntries().size(), 0U);
  EXPECT_FALSE(table->hasPendingHwWrites());
}

TYPED_TEST_P(TableCore, TheNewestOperationIsWhatAReaderSees) {
  const auto table = this->table();
  this->commit(table, 1, 0);
  this->write(table, 1, 1);
  EXPECT_TRUE(TestSupport::isAsked(table->entryRead(this->key(1)), this->entry(1, 1)));
  this->remove(table, 1);
  EXPECT_FALSE(table->entryHas(this->key(1)));
  this->write(table, 1, 2);
  EXPECT_TRUE(TestSupport::isAsked(table->entryRead(this->key(1)), this->entry(1, 2)));
  EXPECT_EQ(this->pass(), 3U);
  EXPECT_TRUE(TestSupport::isAsked(table->entryRead(this->key(1)), this->entry(1, 2)));
  EXPECT_EQ(this->tableVersion(), 4U);
}

TYPED_TEST_P(TableCore, AnIdenticalWriteWhileMarkingIsSuppressed) {
  const auto table = this->table();
  this->commit(table, 1);
  this->report(1);
  table->mark();
  const auto same = this->write(table, 1);
  const auto other = this->write(table, 2);
  this->pass();
  EXPECT_EQ(this->state(same), 4U);
  EXPECT_EQ(this->state(other), 1U);
  EXPECT_EQ(table->stats()->suppressedWriteCnt(), 1U);
  EXPECT_EQ(this->tableVersion(), 2U);
}

TYPED_TEST_P(TableCore, AnEntryMayDependOnOneOfAnotherTable) {
  const auto table = this->table();
  const auto on = this->writeOther(1);
  const auto handle = table->entryWrite(this->key(1), this->entry(1), on);
  const auto back = this->writeOther(2, handle);
  EXPECT_EQ(this->pass(), 3U);
  EXPECT_THAT(this->needed(1), testing::ElementsAre(Asic::TableVersion{TestFixture::Other::tableId,
                                                                       Asic::LogVersion{1}}));
  EXPECT_EQ(static_cast<unsigned>(back->entryState()), 1U);
  const auto failed = table->entryWrite(this->key(2), this->entry(2), this->handleIn(table, 5));
  this->pass();
  EXPECT_EQ(this->state(failed), 5U);
}

TYPED_TEST_P(TableCore, WhatWasCommittedOutlivesTheAgent) {
  {
    const auto table = this->table();
    for (std::uint64_t i = 0; i < 50; ++i) {
      this->commit(table, i);
    }
    this->remove(table, 3);
    this->pass();
    this->write(table, 60);
  }
  this->restart();
  const auto table = this->table();
  EXPECT_EQ(this->tableVersion(), 51U);
  EXPECT_EQ(table->entrys(), 49U);
  std::size_t walked = 0;
  for (auto iter = table->entryIteratorConst(); iter; ++iter) {
    ++walked;
  }
  EXPECT_EQ(walked, 49U);
  EXPECT_TRUE(TestSupport::isAsked(table->entryRead(this->key(7)), this->entry(7)));
  EXPECT_FALSE(table->entryHas(this->key(60))) << "it had not been committed";
  this->commit(table, 60);
  EXPECT_EQ(this->tableVersion(), 52U);
}

TYPED_TEST_P(TableCore, NamesAndTracesAreTheTablesOwn) {
  const auto table = this->table();
  const std::string name = std::string(TypeParam::name.view()) + "Kelp";
  EXPECT_EQ(table->canonicalName()->name(), "OrderedSwTable.KelpEmServerGroup." + name);
  EXPECT_EQ(TestFixture::Table::className(), name + "SwTable");
  TraceCapture traces(name + "SwTable/2:" + name + "EntryLog/8");
  this->commit(table, 1);
  ASSERT_EQ(traces.lines().size(), 2U);
  EXPECT_EQ(traces.lines()[0].handle, name + "SwTable");
  EXPECT_EQ(traces.lines()[0].text, "Done processing write for key: " + this->text(1) + " ");
  EXPECT_EQ(traces.lines()[1].handle, name + "EntryLog");
}

TYPED_TEST_P(TableCore, NothingInFlightIsLeftBehind) {
  const std::string name = std::string(TypeParam::name.view()) + "Kelp";
  {
    const auto table = this->table();
    for (std::uint64_t i = 0; i < 50; ++i) {
      this->write(table, i);
      this->write(table, i, 1);
      this->remove(table, i + 1);
    }
    this->pass();
    table->entryRemoveAll(nullptr);
    this->write(table, 1);
  }
  this->stop();
  std::size_t seen = 0;
  Lumen::MemTrack::forEach([&](const Lumen::MemTrack& tracker) {
    if (std::string_view(tracker.typeName()).starts_with(name)) {
      ++seen;
      EXPECT_EQ(tracker.liveObjects(), 0U) << tracker.typeName();
    }
  });
  EXPECT_GE(seen, 6U);
}

REGISTER_TYPED_TEST_SUITE_P(TableCore, AWriteTravelsToTheLogAndBack, ARemoveTravelsToTheLogAndBack,
                            ARemoveAllEmptiesItsUnit, TheNewestOperationIsWhatAReaderSees,
                            AnIdenticalWriteWhileMarkingIsSuppressed,
                            AnEntryMayDependOnOneOfAnotherTable, WhatWasCommittedOutlivesTheAgent,
                            NamesAndTracesAreTheTablesOwn, NothingInFlightIsLeftBehind);

}  // namespace TestSupport
