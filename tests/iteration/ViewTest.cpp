#include <algorithm>
#include <numeric>

#include "IterationFixture.h"

// What a walk shows of a table that does not change meanwhile: the reader's view, each key once.

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using testing::UnorderedElementsAreArray;

template <class T>
class View : public TestSupport::IterationFixture<T> {
 protected:
  // Each key of the reader's view comes once, with the entry that a read gives.
  void expectReadersView(const Lumen::Ptr<typename View::Table>& table) {
    std::map<std::uint64_t, int> times;
    for (auto iter = table->entryIteratorConst(); iter; ++iter) {
      const std::uint64_t number = this->numberOf(*iter);
      ++times[number];
      EXPECT_TRUE((*iter).isEq(table->entryRead(this->key(number)))) << number;
    }
    for (std::uint64_t i = 0; i < this->kNumbers; ++i) {
      EXPECT_EQ(times[i], table->entryHas(this->key(i)) ? 1 : 0) << i;
    }
    EXPECT_EQ(times[this->kNone], 0);
    EXPECT_EQ(this->shown(table).size(), table->entrys());
  }
};
TYPED_TEST_SUITE(View, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(View, AWriteOverACommittedRecordComesOnceWithTheEntryInFlight) {
  const auto table = this->table();
  this->commit(table, 1, 0);
  this->write(table, 1, 5);
  auto iter = table->entryIteratorConst();
  ASSERT_TRUE(iter);
  EXPECT_TRUE(TestSupport::isAsked((*iter), this->entry(1, 5)));
  ++iter;
  EXPECT_FALSE(iter);
}

TYPED_TEST(View, ARecordWithARemoveInFlightDoesNotCome) {
  const auto table = this->table();
  this->commitAll(table, 0, 3);
  this->remove(table, 1);
  EXPECT_THAT(this->shown(table), UnorderedElementsAre(0, 2));
}

TYPED_TEST(View, ADeletedRecordDoesNotCome) {
  const auto table = this->table();
  this->commitAll(table, 0, 3);
  this->remove(table, 2);
  this->pass();
  EXPECT_EQ(this->records().size(), 3U);
  EXPECT_THAT(this->shown(table), UnorderedElementsAre(0, 1));
}

TYPED_TEST(View, WritesInFlightComeFirstAndThenTheRecordsInTheirOwnOrder) {
  const auto table = this->table();
  this->commitAll(table, 0, 40);
  for (std::uint64_t i = 30; i < 50; ++i) {
    this->write(table, i, 1);
  }
  auto expected = this->inFlight(table);
  for (const std::uint64_t number : this->recordsInOrder()) {
    if (number < 30) {
      expected.push_back(number);
    }
  }
  EXPECT_EQ(this->shown(table), expected);
}

TYPED_TEST(View, FromAKeyInFlightTheRestOfTheWritesAndTheWholeConfigurationCome) {
  const auto table = this->table();
  this->commitAll(table, 0, 20);
  for (std::uint64_t i = 100; i < 110; ++i) {
    this->write(table, i);
  }
  this->write(table, 3, 1);
  const auto writes = this->inFlight(table);
  auto configuration = this->recordsInOrder();
  configuration.erase(std::find(configuration.begin(), configuration.end(), 3U));
  for (const std::size_t start : {std::size_t{0}, std::size_t{4}, writes.size() - 1}) {
    EXPECT_EQ(this->shownFrom(table, writes[start]),
              TestSupport::joined(TestSupport::without(writes, start), configuration));
  }
}

TYPED_TEST(View, FromAKeyOnlyInTheLogItsRecordComesAndNoWriteInFlight) {
  const auto table = this->table();
  this->commitAll(table, 0, 20);
  const auto order = this->recordsInOrder();
  this->write(table, 100);
  for (const std::size_t start : {0U, 7U, 19U}) {
    EXPECT_EQ(this->shownFrom(table, order[start]), TestSupport::without(order, start));
  }
}

TYPED_TEST(View, FromAKeyThatIsNowhereThereIsNothing) {
  const auto table = this->table();
  EXPECT_FALSE(table->entryIteratorConst(this->key(1))) << "of an empty table";
  this->commitAll(table, 0, 20);
  this->write(table, 30);
  this->remove(table, 5);
  this->pass();
  this->write(table, 31);
  EXPECT_FALSE(table->entryIteratorConst(this->key(99)));
  EXPECT_FALSE(table->entryIteratorConst(this->key(5))) << "deleted";
  EXPECT_TRUE(table->entryIteratorConst(this->key(99)) == table->entryIteratorConst(this->key(98)));
}

TYPED_TEST(View, FromAKeyWhoseRemoveIsInFlightTheWalkPassesOverIt) {
  const auto table = this->table();
  this->commitAll(table, 0, 10);
  const auto order = this->recordsInOrder();
  this->remove(table, order[4]);
  EXPECT_EQ(this->shownFrom(table, order[4]), TestSupport::without(order, 5));
  this->remove(table, order[9]);
  EXPECT_THAT(this->shownFrom(table, order[9]), IsEmpty());
}

TYPED_TEST(View, DuringARemoveAllOnlyTheWritesInFlightCome) {
  const auto table = this->table();
  this->commitAll(table, 0, 10);
  table->entryRemoveAll(nullptr);
  EXPECT_THAT(this->shown(table), IsEmpty());
  this->write(table, 3, 2);
  EXPECT_THAT(this->shown(table), ElementsAre(3));
  EXPECT_TRUE(TestSupport::isAsked((*table->entryIteratorConst()), this->entry(3, 2)));
  EXPECT_THAT(this->shownFrom(table, 3), ElementsAre(3));
  EXPECT_THAT(this->shownFrom(table, 4), IsEmpty());
  this->expectReadersView(table);
  this->pass();
  EXPECT_THAT(this->shown(table), ElementsAre(3));
}

TYPED_TEST(View, EveryMixtureIsShownAsItIsRead) {
  const auto table = this->table();
  this->expectReadersView(table);
  this->commitAll(table, 0, 200);
  this->expectReadersView(table);
  for (std::uint64_t i = 0; i < 40; ++i) {
    this->remove(table, i);
  }
  this->pass();  // deleted records
  this->expectReadersView(table);
  for (std::uint64_t i = 20; i < 60; ++i) {
    this->write(table, i, 1);  // over deleted and over live ones
  }
  for (std::uint64_t i = 50; i < 90; ++i) {
    this->remove(table, i);  // of writes in flight and of records
  }
  for (std::uint64_t i = 180; i < 240; ++i) {
    this->write(table, i, 2);
  }
  this->remove(table, 300);  // of nothing
  this->expectReadersView(table);
  this->pass();
  this->expectReadersView(table);
  this->report(this->tableVersion());
  this->expectReadersView(table);
}

TYPED_TEST(View, EachUnitShowsItsOwn) {
  const auto first = this->table(this->unit0);
  const auto second = this->table(this->unit1);
  this->commitAll(first, 0, 5);
  this->commitAll(second, 3, 9);
  this->write(second, 20);
  EXPECT_THAT(this->shown(first), UnorderedElementsAre(0, 1, 2, 3, 4));
  EXPECT_THAT(this->shown(second), UnorderedElementsAre(3, 4, 5, 6, 7, 8, 20));
}

TYPED_TEST(View, WhatAnEarlierRunLeftIsShown) {
  this->commitAll(this->table(), 0, 30);
  this->restart(true);
  const auto table = this->table();
  std::vector<std::uint64_t> all(30);
  std::iota(all.begin(), all.end(), 0U);
  EXPECT_THAT(this->shown(table), UnorderedElementsAreArray(all));
  this->expectReadersView(table);
}

TYPED_TEST(View, AnEntryThatEqualsTheDefaultEntryIsShownAndTheWalkGoesOn) {
  // Only who tells the end by the entry, as a sweep does, stops at it.
  using Entry = typename TestFixture::Entry;
  const auto table = this->table();
  this->commitAll(table, 0, 5);
  (void)table->entryWrite({}, Entry(), nullptr);
  this->pass();
  const auto state = table->initIterState();
  std::size_t all = 0;
  std::size_t defaults = 0;
  for (Entry entry = state->maybeUpdateCurrentEntry(); state->state().valid();
       entry = state->maybeUpdateCurrentEntry()) {
    ++all;
    defaults += this->isDefault(entry) ? 1U : 0U;
  }
  EXPECT_EQ(all, 6U);
  EXPECT_EQ(defaults, 1U);
}

// --- the iterator as a value

TYPED_TEST(View, IteratorsAreComparedByTheirEntriesAndTheEndHasTheDefaultEntry) {
  using Iterator = typename TestFixture::Table::EntryIteratorConst;
  const auto table = this->table();
  const Iterator end(table.get(), nullptr, {});
  EXPECT_TRUE(table->entryIteratorConst() == end);
  this->commit(table, 1);
  this->commit(table, 2);
  auto iter = table->entryIteratorConst();
  EXPECT_FALSE(iter == end);
  EXPECT_TRUE(iter == table->entryIteratorConst(this->key(this->numberOf(*iter))));
  const auto other = this->numberOf(*iter) == 1 ? 2U : 1U;
  EXPECT_FALSE(iter == table->entryIteratorConst(this->key(other)));
  EXPECT_EQ(iter.swTable(), table.get());
  ++iter;
  EXPECT_TRUE(iter == table->entryIteratorConst(this->key(other)));
  ++iter;
  EXPECT_TRUE(iter == end);
}

}  // namespace
