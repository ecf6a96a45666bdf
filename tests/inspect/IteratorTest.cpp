#include <algorithm>
#include <set>

#include "Brio/GenericIterator.h"
#include "InspectFixture.h"

// Walks over collections that are known by their field id only.

namespace {

using InspectTest::ask;
using InspectTest::classOf;
using InspectTest::NodePtr;
namespace Code = Lumen::Inspect;

// A generic iterator of a field; freed at the end.
class Walk {
 public:
  Walk(Lumen::Node& node, std::string_view field, const void* key = nullptr)
      : attribute_(classOf(node).field(field)) {
    void* at = const_cast<void*>(key);
    const void* functions = nullptr;
    iterator_ = classOf(node).glue().iterator(&node, key == nullptr ? nullptr : &at, attribute_,
                                              &functions);
    functions_ = static_cast<const Brio::IteratorFunctions*>(functions);
  }
  ~Walk() {
    if (iterator_ != nullptr) {
      functions_->iterDel(attribute_, iterator_);
    }
  }
  Walk(const Walk&) = delete;
  Walk& operator=(const Walk&) = delete;

  [[nodiscard]] bool made() const { return iterator_ != nullptr; }
  [[nodiscard]] bool nonnull() const { return functions_->iterNonnull(attribute_, iterator_); }
  void next() { functions_->iterInc(attribute_, iterator_); }
  template <class K>
  K key() const {
    K key{};
    functions_->iterKey(attribute_, iterator_, &key);
    return key;
  }
  template <class V>
  V value() const {
    V value{};
    functions_->iterObj(attribute_, iterator_, &value);
    return value;
  }

 private:
  Lumen::FieldDescriptor attribute_;
  void* iterator_;
  const Brio::IteratorFunctions* functions_ = nullptr;
};

template <class T>
class Walks : public InspectTest::InspectFixture<T> {
 protected:
  using Key = typename T::Entry::Key;

  void addMany(unsigned count) {
    for (unsigned i = 0; i < count; ++i) {
      this->table_->transientAddEntryIs(this->wrapper(i));
    }
  }
  std::set<Key> keysOf(std::string_view field) {
    std::set<Key> keys;
    for (Walk walk(*this->table_, field); walk.nonnull(); walk.next()) {
      EXPECT_TRUE(keys.insert(walk.template key<Key>()).second);
    }
    return keys;
  }
};
TYPED_TEST_SUITE(Walks, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(Walks, OverAMapGiveEveryKeyAndValueOnce) {
  this->addMany(100);
  std::size_t seen = 0;
  for (Walk walk(*this->table_, "transientAddEntry"); walk.nonnull(); walk.next()) {
    const auto key = walk.template key<typename TypeParam::Entry::Key>();
    EXPECT_EQ(walk.template value<NodePtr>().get(), this->table_->transientAddEntry(key).get());
    ++seen;
  }
  EXPECT_EQ(seen, 100U);
  EXPECT_EQ(this->keysOf("transientAddEntry").size(), 100U);
}

TYPED_TEST(Walks, OverAnEmptyMapHaveNoCurrentNode) {
  const Walk walk(*this->table_, "transientAddEntry");
  ASSERT_TRUE(walk.made());
  EXPECT_FALSE(walk.nonnull());
}

TYPED_TEST(Walks, FromAKeyBeginThereAndFromAnAbsentOneAtTheEnd) {
  this->addMany(20);
  const auto key = this->key(7);
  const Walk walk(*this->table_, "transientAddEntry", &key);
  ASSERT_TRUE(walk.made());
  ASSERT_TRUE(walk.nonnull());
  EXPECT_EQ(walk.template key<typename TypeParam::Entry::Key>(), key);
  const auto absent = this->key(70);
  const Walk none(*this->table_, "transientAddEntry", &absent);
  ASSERT_TRUE(none.made());
  EXPECT_FALSE(none.nonnull());
}

TYPED_TEST(Walks, SurviveTheEndOfWhatTheyStandOn) {
  this->addMany(50);
  auto& table = *this->table_;
  std::size_t seen = 0;
  for (Walk walk(table, "transientAddEntry"); walk.nonnull(); walk.next()) {
    const auto key = walk.template key<typename TypeParam::Entry::Key>();
    NodePtr old;
    EXPECT_EQ(ask(table, "transientAddEntry", Code::kDelete, &old, &key), Code::kDone);
    EXPECT_NE(old, nullptr);
    EXPECT_TRUE(walk.nonnull());
    EXPECT_EQ(walk.template value<NodePtr>().get(), nullptr) << "gone by now";
    EXPECT_EQ(walk.template key<typename TypeParam::Entry::Key>(), key) << "as it saw it";
    ++seen;
  }
  EXPECT_EQ(seen, 50U);
  EXPECT_TRUE(table.transientAddEntry().empty());
}

TYPED_TEST(Walks, ShowTheValueThatIsThereNow) {
  auto& table = *this->table_;
  table.transientAddEntryIs(this->wrapper(1));
  const Walk walk(table, "transientAddEntry");
  ASSERT_TRUE(walk.nonnull());
  const auto other = this->wrapper(1);
  table.transientAddEntryIs(other);
  EXPECT_EQ(walk.template value<NodePtr>().get(), other.get());
}

TYPED_TEST(Walks, OverASetGiveTrueAndTheKey) {
  for (unsigned i = 0; i < 10; ++i) {
    this->table_->markedKeyIs(this->key(i));
  }
  EXPECT_EQ(this->keysOf("markedKey").size(), 10U);
  const Walk walk(*this->table_, "markedKey");
  EXPECT_TRUE(walk.template value<bool>());
}

TYPED_TEST(Walks, OverAQueueGoOnWhenItsFrontLeaves) {
  for (unsigned i = 0; i < 6; ++i) {
    this->commit(this->table_, i);
  }
  Walk walk(*this->table_, "entryHandleInLog");
  const auto first = walk.template key<std::uint32_t>();
  EXPECT_EQ(walk.template value<NodePtr>().get(), this->table_->entryHandleInLogFront().get());
  this->report(3);
  EXPECT_EQ(walk.template key<std::uint32_t>(), first);
  EXPECT_EQ(walk.template value<NodePtr>().get(), nullptr);
  std::vector<std::uint32_t> rest;
  for (walk.next(); walk.nonnull(); walk.next()) {
    rest.push_back(walk.template key<std::uint32_t>() - first);
    EXPECT_NE(walk.template value<NodePtr>(), nullptr);
  }
  EXPECT_THAT(rest, testing::ElementsAre(3U, 4U, 5U));
}

TYPED_TEST(Walks, AreMadeOfCollectionsOnly) {
  EXPECT_FALSE(Walk(*this->table_, "inMarkingState").made());
  EXPECT_FALSE(Walk(*this->table_, "commitEntry").made());
  EXPECT_FALSE(Walk(*this->table_, "").made());
  EXPECT_FALSE(Walk(*this->intf(), "entryLog").made());
}

// ---- the copy of a table

TYPED_TEST(Walks, TheCopyOfAnEmptyTableIsEmpty) {
  NodePtr copy;
  ASSERT_EQ(ask(*this->table_, "getTableEntries_py", Code::kCall, &copy), Code::kDone);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->refCount(), 1U);
  std::uint32_t count = 9;
  EXPECT_EQ(ask(*copy, "tableEntries", Code::kCount, &count), Code::kDone);
  EXPECT_EQ(count, 0U);
}

TYPED_TEST(Walks, TheCopyShowsTheReadersViewAndStaysAsItIs) {
  for (unsigned i = 0; i < 8; ++i) {
    this->commit(this->table_, i);
  }
  (void)this->table_->entryWrite(this->key(20), this->entry(20), nullptr);
  (void)this->table_->entryRemove(this->key(3), nullptr);
  NodePtr copy;
  ASSERT_EQ(ask(*this->table_, "getTableEntries_py", Code::kCall, &copy), Code::kDone);
  (void)this->table_->entryRemove(this->key(4), nullptr);
  this->pass();
  std::set<typename TypeParam::Entry::Key> keys;
  for (Walk walk(*copy, "tableEntries"); walk.nonnull(); walk.next()) {
    const auto key = walk.template key<typename TypeParam::Entry::Key>();
    const auto entry = walk.template value<typename TypeParam::Entry>();
    EXPECT_EQ(entry.logEntry.key, key);
    keys.insert(key);
  }
  std::set<typename TypeParam::Entry::Key> wanted;
  for (const unsigned number : {0, 1, 2, 4, 5, 6, 7, 20}) {
    wanted.insert(this->key(number));
  }
  EXPECT_EQ(keys, wanted);
}

TYPED_TEST(Walks, ACopyIsChangedByItsOwnOperations) {
  using Entry = typename TypeParam::Entry;
  const auto copy = this->table_->getTableEntries_py();
  copy->tableEntriesIs(this->entry(1));
  copy->tableEntriesIs(this->entry(2));
  copy->tableEntriesIs(this->entry(1, 5));
  EXPECT_EQ(copy->tableEntries().size(), 2U);
  EXPECT_TRUE(copy->tableEntries(this->key(1)).isEq(this->entry(1, 5)));
  EXPECT_TRUE(copy->tableEntriesDel(this->key(1)).isEq(this->entry(1, 5)));
  EXPECT_TRUE(copy->tableEntriesDel(this->key(1)).isEq(Entry()));
  EXPECT_TRUE(copy->tableEntries(this->key(1)).isEq(Entry()));
  copy->tableEntriesDelAll();
  EXPECT_TRUE(copy->tableEntries().empty());
}

}  // namespace
