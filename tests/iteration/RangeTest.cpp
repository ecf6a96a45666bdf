#include <algorithm>
#include <iterator>
#include <ranges>

#include "IterationFixture.h"
#include "Lumen/MemTrack.h"

// The reader's view as a C++ range.

namespace {

using testing::IsEmpty;
using testing::UnorderedElementsAre;

template <class T>
class Range : public TestSupport::IterationFixture<T> {
 public:
  using SwTable = typename TestSupport::IterationFixture<T>::Table;
  using Entries = decltype(std::declval<const SwTable&>().entries());
  using Iterator = std::ranges::iterator_t<Entries>;

  static_assert(std::ranges::input_range<Entries> && !std::ranges::forward_range<Entries>);
  static_assert(std::ranges::borrowed_range<Entries>);
  static_assert(std::input_iterator<Iterator> && !std::copyable<Iterator>);
  static_assert(std::sentinel_for<std::default_sentinel_t, Iterator>);
  static_assert(std::is_same_v<std::iter_reference_t<Iterator>, const typename T::Entry&>);
  static_assert(std::is_same_v<std::iter_value_t<Iterator>, typename T::Entry>);
  static_assert(sizeof(Entries) == sizeof(void*));

 protected:
  std::vector<std::uint64_t> numbers(const SwTable& table) {
    std::vector<std::uint64_t> all;
    for (const auto& entry : table.entries()) {
      all.push_back(this->numberOf(entry));
    }
    return all;
  }
};
TYPED_TEST_SUITE(Range, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(Range, AnEmptyTableIsAnEmptyRange) {
  const auto table = this->table();
  EXPECT_THAT(this->numbers(*table), IsEmpty());
  EXPECT_TRUE(table->entries().begin() == table->entries().end());
}

TYPED_TEST(Range, ItShowsWhatTheIteratorShowsInTheSameOrder) {
  const auto table = this->table();
  this->commitAll(table, 0, 50);
  for (std::uint64_t i = 40; i < 60; ++i) {
    this->write(table, i, 1);
  }
  this->remove(table, 3);
  EXPECT_EQ(this->numbers(*table), this->shown(table));
  for (const auto& entry : table->entries()) {
    EXPECT_TRUE(entry.isEq(table->entryRead(entry.logEntry.key)));
  }
}

TYPED_TEST(Range, EachBeginIsAWalkOfItsOwn) {
  const auto table = this->table();
  this->commitAll(table, 0, 2);
  const auto entries = table->entries();
  auto first = entries.begin();
  ++first;
  auto second = entries.begin();
  EXPECT_NE(this->numberOf(*first), this->numberOf(*second));
  first++;
  EXPECT_TRUE(first == entries.end());
  EXPECT_FALSE(second == entries.end());
  EXPECT_EQ(second->logEntry.key, (*second).logEntry.key);
}

TYPED_TEST(Range, AlgorithmsTakeIt) {
  const auto table = this->table();
  this->commitAll(table, 0, 30);
  EXPECT_EQ(std::ranges::distance(table->entries()), 30);
  const auto found = std::ranges::find_if(
      table->entries(), [&](const auto& entry) { return this->numberOf(entry) == 17; });
  ASSERT_FALSE(found == std::default_sentinel);
  EXPECT_TRUE(TestSupport::isAsked((*found), this->entry(17)));
}

TYPED_TEST(Range, TheTableMayChangeInTheLoop) {
  const auto table = this->table();
  this->commitAll(table, 0, 50);
  std::vector<std::uint64_t> seen;
  for (const auto& entry : table->entries()) {
    seen.push_back(this->numberOf(entry));
    this->remove(table, seen.back());
    if (seen.size() % 10 == 0) {
      this->pass();
      this->report(this->tableVersion());
    }
  }
  EXPECT_EQ(seen.size(), 50U);
  EXPECT_EQ(table->entrys(), 0U);
}

TYPED_TEST(Range, AWalkAllocatesItsStateAndNothingElse) {
  const auto table = this->table();
  this->commitAll(table, 0, 50);
  for (std::uint64_t i = 40; i < 60; ++i) {
    this->write(table, i, 1);
  }
  const auto allocations = [](bool states) {
    std::uint64_t count = 0;
    Lumen::MemTrack::forEach([&](const Lumen::MemTrack& tracker) {
      const bool state = std::string_view(tracker.typeName()).ends_with("SwTableIteratorState");
      count += state == states ? tracker.allocations() : 0;
    });
    return count;
  };
  const std::uint64_t states = allocations(true);
  const std::uint64_t others = allocations(false);
  for (const auto& entry : table->entries()) {
    EXPECT_EQ(allocations(true), states + 1) << this->numberOf(entry);
  }
  EXPECT_EQ(allocations(false), others);
  std::uint64_t live = 0;
  Lumen::MemTrack::forEach([&](const Lumen::MemTrack& tracker) {
    live += std::string_view(tracker.typeName()).ends_with("SwTableIteratorState")
                ? tracker.liveObjects()
                : 0;
  });
  EXPECT_EQ(live, 0U);
}

TYPED_TEST(Range, TheBaseClassThatFeatureCodeHoldsHasItToo) {
  const Lumen::Ptr<typename TestFixture::SwTable::Base> table = this->table();
  this->commit(this->table(), 4);
  std::vector<std::uint64_t> all;
  for (const auto& entry : table->entries()) {
    all.push_back(this->numberOf(entry));
  }
  EXPECT_THAT(all, UnorderedElementsAre(4));
}

template <class T>
class RangeDeathTest : public TestSupport::IterationFixture<T> {};
TYPED_TEST_SUITE(RangeDeathTest, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(RangeDeathTest, AStepBeyondTheEndEndsTheProcess) {
  const auto table = this->table();
  auto at = table->entries().begin();
  EXPECT_DEATH(++at, TestSupport::assertion("iter_"));
  EXPECT_DEATH((void)*at, TestSupport::assertion("iter_"));
}

}  // namespace
