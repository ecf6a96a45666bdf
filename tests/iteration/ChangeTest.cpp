#include <algorithm>

#include "IterationFixture.h"

// Walks over a table that changes between two steps.

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::Eq;
using testing::IsEmpty;
using testing::Not;
using testing::Optional;

template <class T>
class Change : public TestSupport::IterationFixture<T> {
 protected:
  using Numbers = typename TestSupport::IterationFixture<T>::Numbers;

  // A walk over writes in flight, one of which has been shown; gives them in their order.
  Numbers startInFlight(const Lumen::Ptr<typename Change::Table>& table) {
    this->commitAll(table, 0, 20);
    for (std::uint64_t i = 100; i < 110; ++i) {
      this->write(table, i);
    }
    const Numbers writes = this->inFlight(table);
    walk_ = this->begin(table);
    EXPECT_THAT(this->step(walk_), Optional(writes[0]));
    EXPECT_TRUE(walk_->bookmarkKey() == this->key(writes[1]));
    return writes;
  }
  // A walk over records, `steps` of which have been shown; gives them in their order.
  Numbers startInRecords(const Lumen::Ptr<typename Change::Table>& table, std::size_t steps) {
    this->commitAll(table, 0, 20);
    const Numbers order = this->recordsInOrder();
    walk_ = this->begin(table);
    for (std::size_t i = 0; i < steps; ++i) {
      EXPECT_THAT(this->step(walk_), Optional(order[i]));
    }
    return order;
  }
  void TearDown() override {
    walk_ = nullptr;
    TestSupport::IterationFixture<T>::TearDown();
  }

  Lumen::Ptr<typename Change::IteratorState> walk_;
};
TYPED_TEST_SUITE(Change, TestSupport::AllTableTypes, TestSupport::TableTestName);

// --- the bookmark goes, among the writes in flight

TYPED_TEST(Change, ABookmarkThatLeftTheWritesIsSoughtInTheConfiguration) {
  const auto table = this->table();
  const auto writes = this->startInFlight(table);
  table->transientAddEntryDel(this->key(writes[1]));  // and it is nowhere now
  const auto following = this->recordsAfter(writes[1]);
  TestSupport::TraceCapture traces("SwTableIter/9");
  if (following.empty()) {
    EXPECT_EQ(this->step(this->walk_), std::nullopt);
  } else {
    EXPECT_THAT(this->step(this->walk_), Optional(following[0]));
  }
  ASSERT_GE(traces.lines().size(), 3U);
  EXPECT_EQ(traces.lines()[0].text, "  in transientAdd collection");
  EXPECT_EQ(traces.lines()[1].text, "  done with transAdd");
  EXPECT_EQ(traces.lines()[2].text, "  in cfgQuilt collection");
  EXPECT_EQ(this->rest(this->walk_),
            following.empty() ? following : TestSupport::without(following, 1))
      << "the other writes in flight are not shown";
}

TYPED_TEST(Change, ABookmarkThatWasRemovedIsPassedOverInTheConfiguration) {
  const auto table = this->table();
  this->commitAll(table, 0, 20);
  for (std::uint64_t i = 5; i < 9; ++i) {
    this->write(table, i, 1);  // over records
  }
  const auto writes = this->inFlight(table);
  const auto walk = this->begin(table);
  EXPECT_THAT(this->step(walk), Optional(writes[0]));
  this->remove(table, writes[1]);
  std::vector<std::uint64_t> expected;
  for (const std::uint64_t number : this->recordsAfter(writes[1])) {
    if (number < 5 || number >= 9) {  // the others are in flight, and not shown here
      expected.push_back(number);
    }
  }
  EXPECT_EQ(this->rest(walk), expected);
}

TYPED_TEST(Change, ABookmarkThatWasCommittedIsFoundInTheConfiguration) {
  const auto table = this->table();
  const auto writes = this->startInFlight(table);
  this->pass();
  EXPECT_EQ(this->rest(this->walk_), this->recordsFrom(writes[1]));
}

TYPED_TEST(Change, DuringARemoveAllABookmarkThatLeftTheWritesEndsTheWalk) {
  const auto table = this->table();
  this->commitAll(table, 0, 5);
  table->entryRemoveAll(nullptr);
  this->write(table, 10);
  this->write(table, 11);
  const auto writes = this->inFlight(table);
  const auto walk = this->begin(table);
  EXPECT_THAT(this->step(walk), Optional(writes[0]));
  table->transientAddEntryDel(this->key(writes[1]));
  EXPECT_EQ(this->step(walk), std::nullopt);
}

TYPED_TEST(Change, AWriteInFlightThatIsNotTheBookmarkMayGo) {
  const auto table = this->table();
  const auto writes = this->startInFlight(table);
  this->remove(table, writes[0]);
  this->remove(table, writes[5]);
  auto expected = writes;
  expected.erase(expected.begin() + 5);
  expected.erase(expected.begin());
  EXPECT_EQ(this->rest(this->walk_), TestSupport::joined(expected, this->recordsInOrder()));
}

TYPED_TEST(Change, ABookmarkThatIsWrittenAgainIsShownAsWritten) {
  const auto table = this->table();
  const auto writes = this->startInFlight(table);
  this->write(table, writes[1], 7);
  const auto entry = this->walk_->maybeUpdateCurrentEntry();
  EXPECT_TRUE(TestSupport::isAsked(entry, this->entry(writes[1], 7)));
}

// --- the bookmark goes, in the configuration

TYPED_TEST(Change, AnEntryRemovedByTheCallerIsNotShownIfItWasTheBookmark) {
  const auto table = this->table();
  const auto order = this->startInRecords(table, 3);
  EXPECT_TRUE(this->walk_->bookmarkKey() == this->key(order[3]));
  this->remove(table, order[3]);
  EXPECT_EQ(this->rest(this->walk_), TestSupport::without(order, 4));
}

TYPED_TEST(Change, ABookmarkThatWasDeletedInTheLogIsPassedOver) {
  const auto table = this->table();
  const auto order = this->startInRecords(table, 3);
  this->remove(table, order[3]);
  this->pass();
  EXPECT_EQ(this->rest(this->walk_), TestSupport::without(order, 4));
}

TYPED_TEST(Change, ABookmarkThatLeftTheConfigurationIsFollowedByTheNextRecord) {
  const auto table = this->table();
  const auto order = this->startInRecords(table, 3);
  this->remove(table, order[3]);
  this->remove(table, order[4]);
  this->pass();
  this->report(this->tableVersion());
  ASSERT_EQ(this->records().size(), 18U);
  EXPECT_EQ(this->rest(this->walk_), TestSupport::without(order, 5));
}

TYPED_TEST(Change, ABookmarkThatWasTheLastRecordAndLeftEndsTheWalk) {
  const auto table = this->table();
  const auto order = this->startInRecords(table, 19);
  this->remove(table, order[19]);
  this->pass();
  this->report(this->tableVersion());
  EXPECT_EQ(this->step(this->walk_), std::nullopt);
}

TYPED_TEST(Change, ARecordThatIsWrittenAgainAheadOfTheWalkIsHiddenUntilItIsCommitted) {
  const auto table = this->table();
  const auto order = this->startInRecords(table, 3);
  this->write(table, order[3], 1);
  this->write(table, order[10], 1);
  EXPECT_THAT(this->step(this->walk_), Optional(order[4])) << "its phase is over";
  this->pass();
  EXPECT_EQ(this->rest(this->walk_), TestSupport::without(order, 5));
}

TYPED_TEST(Change, EverythingMayGo) {
  const auto table = this->table();
  (void)this->startInRecords(table, 3);
  for (std::uint64_t i = 0; i < 20; ++i) {
    this->remove(table, i);
  }
  this->pass();
  this->report(this->tableVersion());
  ASSERT_EQ(this->records().size(), 0U);
  EXPECT_EQ(this->step(this->walk_), std::nullopt);
  EXPECT_EQ(this->bits(this->walk_) & (this->kInAddColl | this->kInTblCfg), 0U);
}

// --- keys that come and move

TYPED_TEST(Change, KeysAddedDuringAWalkLeaveTheOthersAsTheyWere) {
  const auto table = this->table();
  const auto order = this->startInRecords(table, 10);
  this->commitAll(table, 200, 300);
  auto rest = this->rest(this->walk_);
  std::erase_if(rest, [](std::uint64_t number) { return number >= 200; });
  EXPECT_EQ(rest, TestSupport::without(order, 10));
}

TYPED_TEST(Change, AKeyThatMovesToTheCollectionCanBeShownTwice) {
  const auto table = this->table();
  this->write(table, 1);
  const auto walk = this->begin(table);
  EXPECT_THAT(this->step(walk), Optional(Eq(1U)));
  this->pass();
  EXPECT_THAT(this->rest(walk), ElementsAre(1));
}

TYPED_TEST(Change, AKeyThatMovesToTheCollectionBehindTheWalkIsNotShown) {
  const auto table = this->table();
  const auto order = this->startInRecords(table, 0);
  this->write(table, order[0], 1);  // in flight, before the place where the walk begins
  const auto walk = this->begin(table, order[1]);
  EXPECT_THAT(this->step(walk), Optional(order[1]));
  this->pass();
  EXPECT_THAT(this->rest(walk), Not(Contains(order[0])));
}

// --- remove-alls

TYPED_TEST(Change, ARemoveAllThatComesLaterDoesNotShortenAWalk) {
  const auto table = this->table();
  const auto order = this->startInRecords(table, 3);
  table->entryRemoveAll(nullptr);
  EXPECT_THAT(this->shown(table), IsEmpty()) << "for who begins now";
  EXPECT_EQ(this->rest(this->walk_), TestSupport::without(order, 3));
  EXPECT_EQ(this->bits(this->walk_) & this->kSkipTblCfg, 0U);
}

TYPED_TEST(Change, ARemoveAllThatEmptiesTheWritesLeavesTheConfigurationToTheWalk) {
  const auto table = this->table();
  const auto writes = this->startInFlight(table);
  table->entryRemoveAll(nullptr);
  EXPECT_EQ(this->rest(this->walk_), this->recordsAfter(writes[1]));
}

TYPED_TEST(Change, ARemoveAllThatIsCommittedLeavesNothingToShow) {
  const auto table = this->table();
  (void)this->startInRecords(table, 3);
  table->entryRemoveAll(nullptr);
  this->pass();
  EXPECT_THAT(this->rest(this->walk_), IsEmpty());
}

TYPED_TEST(Change, ARemoveAllThatEndsDoesNotLengthenAWalk) {
  const auto table = this->table();
  this->commitAll(table, 0, 5);
  table->entryRemoveAll(nullptr);
  for (std::uint64_t i = 10; i < 14; ++i) {
    this->write(table, i);
  }
  const auto writes = this->inFlight(table);
  const auto walk = this->begin(table);
  EXPECT_THAT(this->step(walk), Optional(writes[0]));
  this->pass();
  ASSERT_FALSE(table->transientRemoveAllVersion().valid());
  EXPECT_EQ(this->step(walk), std::nullopt) << "the writes are in the configuration by now";
  EXPECT_EQ(this->bits(walk) & this->kSkipTblCfg, this->kSkipTblCfg);
  EXPECT_EQ(this->shown(table).size(), 4U);
}

}  // namespace
