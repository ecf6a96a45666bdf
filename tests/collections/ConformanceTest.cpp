// One suite for every kind of node and width of key, and for a reference over std::map, which
// proves the suite itself.

#include <gtest/gtest.h>

#include <map>
#include <type_traits>
#include <utility>
#include <vector>

#include "CollectionNodes.h"

namespace collections_test {
namespace {

template <class T>
class KeyedCollection : public testing::Test {
 public:
  using Key = typename T::Node::Key;
  static Key key(unsigned n) { return makeKey<Key>(n); }

  void fill(unsigned count) {
    for (unsigned n = 0; n < count; ++n) {
      insert(collection, n, n);
    }
  }
  // How often a walk from `iterator` to the end shows each key.
  static std::map<Key, unsigned> walk(typename T::ConstIterator iterator) {
    std::map<Key, unsigned> shown;
    for (; iterator; iterator.advance()) {
      ++shown[iterator.currNodeMaybeStale()->key()];
    }
    return shown;
  }

  T collection;
};

using Collections =
    testing::Types<Brio::HashMap2018<HN_Set4>, Brio::HashMap2018<HN_Map4>,
                   Brio::HashMap2018<HN_SetFields>, Brio::HashMap2018<HN_MapObject>,
                   Brio::HashMap2018<HN_MapWide>, Brio::HashMap2018<HN_MapString>,
                   Brio::HashMap2018<HN_SetAligned>, Brio::HashMap2018<HN_SetColliding<1>>,
                   Brio::HashMap2018<HN_SetColliding<40>>, Brio::HashMap2018<HN_MapColliding>,
                   Brio::HashMap2018<HN_InternalObject>, Brio::HashMap2018<HN_InternalEntry>,
                   ReferenceCollection<HN_Map4>, ReferenceCollection<HN_MapObject>,
                   ReferenceCollection<HN_InternalEntry>>;
TYPED_TEST_SUITE(KeyedCollection, Collections);

constexpr unsigned kSizes[] = {1, 2, 3, 5, 15, 16, 17, 18, 40, 300, 2000};

TYPED_TEST(KeyedCollection, IsEmptyWhenFresh) {
  auto& collection = this->collection;
  EXPECT_EQ(collection.size(), 0U);
  EXPECT_TRUE(collection.empty());
  EXPECT_FALSE(has(collection, 0));
  EXPECT_FALSE(erase(collection, 0));
  const auto key = this->key(0);
  EXPECT_EQ(collection.find(collection.hashed(key)), nullptr);
  EXPECT_FALSE(collection.del(collection.hashed(key), nullptr));
  EXPECT_FALSE(collection.iterator());
  EXPECT_FALSE(collection.iterator(key));
  EXPECT_EQ(collection.iterator(), collection.iterator());
  collection.delAll();
  EXPECT_TRUE(collection.empty());
}

TYPED_TEST(KeyedCollection, FindsWhatWasInsertedAndNothingElse) {
  auto& collection = this->collection;
  for (unsigned n = 0; n < 2000; ++n) {
    ASSERT_FALSE(has(collection, n));
    const auto key = this->key(n);
    const auto arg = collection.hashed(key);
    auto& node = collection.newMember(arg, makeNode<typename TypeParam::Node>(n, n));
    ASSERT_EQ(node.key(), key);
    ASSERT_TRUE(holds(node, n));
    ASSERT_EQ(collection.find(arg), &node);
    ASSERT_EQ(collection.size(), n + 1);
  }
  for (unsigned n = 0; n < 2000; ++n) {
    const auto* node = collection[this->key(n)];
    ASSERT_NE(node, nullptr);
    ASSERT_EQ(node->key(), this->key(n));
    ASSERT_TRUE(holds(*node, n));
  }
  for (unsigned n = 2000; n < 4000; ++n) {
    ASSERT_FALSE(has(collection, n));
  }
}

TYPED_TEST(KeyedCollection, GivesBackTheNodeThatItRemoves) {
  using Node = typename TypeParam::Node;
  auto& collection = this->collection;
  for (const unsigned size : kSizes) {
    this->fill(size);
    for (unsigned n = 0; n < size; ++n) {
      const auto key = this->key(n * 7919 % size);
      if (collection[key] == nullptr) {
        continue;  // the step is no permutation of this size
      }
      Node removed = makeNode<Node>(size + 1, 0);
      ASSERT_TRUE(collection.del(collection.hashed(key), &removed));
      ASSERT_EQ(removed.key(), key);
      ASSERT_TRUE(holds(removed, n * 7919 % size));
      ASSERT_EQ(collection[key], nullptr);
      Node untouched = makeNode<Node>(size + 1, 5);
      ASSERT_FALSE(collection.del(collection.hashed(key), &untouched));
      ASSERT_EQ(untouched.key(), this->key(size + 1));
    }
    collection.delAll();
    ASSERT_TRUE(collection.empty());
  }
}

TYPED_TEST(KeyedCollection, KeepsTheOthersWhenSomeAreRemoved) {
  auto& collection = this->collection;
  this->fill(3000);
  for (unsigned n = 0; n < 3000; n += 3) {
    ASSERT_TRUE(erase(collection, n));
    ASSERT_FALSE(erase(collection, n));
  }
  EXPECT_EQ(collection.size(), 2000U);
  for (unsigned n = 0; n < 3000; ++n) {
    const auto* node = collection[this->key(n)];
    ASSERT_EQ(node != nullptr, n % 3 != 0);
    ASSERT_TRUE(node == nullptr || holds(*node, n));
  }
}

TYPED_TEST(KeyedCollection, ReplacesAValueUnderItsKeyAndLeavesOneMember) {
  using Node = typename TypeParam::Node;
  if constexpr (!std::is_void_v<typename Node::Value>) {
    auto& collection = this->collection;
    this->fill(100);
    const auto key = this->key(50);
    collection.find(collection.hashed(key))->valueIs(makeNode<Node>(50, 999).value());
    EXPECT_EQ(collection.size(), 100U);
    EXPECT_TRUE(holds(*collection[key], 999));
    EXPECT_TRUE(holds(*collection[this->key(51)], 51));
  }
}

TYPED_TEST(KeyedCollection, ForgetsAllAndStartsAnew) {
  auto& collection = this->collection;
  for (const unsigned size : kSizes) {
    this->fill(size);
    ASSERT_EQ(collection.size(), size);
    collection.delAll();
    ASSERT_EQ(collection.size(), 0U);
    ASSERT_FALSE(collection.iterator());
    for (unsigned n = 0; n < size; ++n) {
      ASSERT_FALSE(has(collection, n));
    }
  }
}

TYPED_TEST(KeyedCollection, ShowsEachMemberOnceInAWalk) {
  for (const unsigned size : kSizes) {
    this->collection.delAll();
    this->fill(size);
    const auto shown = this->walk(this->collection.iterator());
    ASSERT_EQ(shown.size(), size);
    for (const auto& [key, times] : shown) {
      ASSERT_EQ(times, 1U);
      ASSERT_NE(this->collection[key], nullptr);
    }
  }
}

TYPED_TEST(KeyedCollection, StartsAWalkAtAKeyAndAtTheEndIfItIsAbsent) {
  auto& collection = this->collection;
  this->fill(500);
  EXPECT_FALSE(collection.iterator(this->key(500)));
  // From each member on, a walk shows one member less than from the one before it.
  unsigned left = 500;
  for (auto iterator = collection.iterator(); iterator; iterator.advance(), --left) {
    auto from = collection.iterator(iterator.currNodeMaybeStale()->key());
    ASSERT_TRUE(from);
    ASSERT_EQ(from, iterator);
    ASSERT_EQ(from.currNodeMaybeStale()->key(), iterator.currNodeMaybeStale()->key());
    if (left % 50 == 0) {
      ASSERT_EQ(this->walk(from).size(), left);
    }
  }
  EXPECT_EQ(left, 0U);
}

TYPED_TEST(KeyedCollection, LeavesAnIteratorValidWhenItsMemberIsDeleted) {
  auto& collection = this->collection;
  for (const unsigned size : kSizes) {
    this->fill(size);
    auto iterator = collection.iterator();
    const auto key = iterator.currNodeMaybeStale()->key();
    EXPECT_NE(iterator.currNodeNonStale(), nullptr);
    ASSERT_TRUE(collection.del(key));
    ASSERT_TRUE(iterator);
    EXPECT_EQ(iterator.currNodeNonStale(), nullptr);
    ASSERT_NE(iterator.currNodeMaybeStale(), nullptr);
    EXPECT_EQ(iterator.currNodeMaybeStale()->key(), key);
    iterator.advance();
    EXPECT_EQ(this->walk(iterator).size(), size - 1);
    collection.delAll();
  }
}

TYPED_TEST(KeyedCollection, LetsAWalkDeleteEachMemberItStandsOn) {
  auto& collection = this->collection;
  for (const unsigned size : kSizes) {
    this->fill(size);
    std::map<typename TypeParam::Node::Key, unsigned> shown;
    for (auto iterator = collection.iterator(); iterator; iterator.advance()) {
      const auto& key = iterator.currNodeMaybeStale()->key();
      ++shown[key];
      ASSERT_TRUE(collection.del(key));
      ASSERT_EQ(iterator.currNodeNonStale(), nullptr);
    }
    ASSERT_TRUE(collection.empty());
    ASSERT_EQ(shown.size(), size);
    for (const auto& [key, times] : shown) {
      ASSERT_EQ(times, 1U);
    }
  }
}

TYPED_TEST(KeyedCollection, ShowsAMemberOnceThoughOthersComeAndGoDuringTheWalk) {
  auto& collection = this->collection;
  this->fill(600);  // the even ones stay, the odd ones go, and 3000 others come
  std::map<typename TypeParam::Node::Key, unsigned> shown;
  unsigned step = 0;
  for (auto iterator = collection.iterator(); iterator; iterator.advance(), ++step) {
    ++shown[iterator.currNodeMaybeStale()->key()];
    ASSERT_NE(iterator.currNodeNonStale(), nullptr);
    if (step < 300) {
      ASSERT_TRUE(erase(collection, 2 * step + 1));
      for (unsigned i = 0; i < 10; ++i) {
        insert(collection, 600 + 10 * step + i);
      }
    }
    if (step >= 300 && step < 600) {
      for (unsigned i = 0; i < 10; ++i) {
        ASSERT_TRUE(erase(collection, 600 + 10 * (step - 300) + i));
      }
    }
  }
  for (unsigned n = 0; n < 600; n += 2) {
    ASSERT_EQ(shown[this->key(n)], 1U);
  }
  for (const auto& [key, times] : shown) {
    ASSERT_LE(times, 1U);
  }
}

TYPED_TEST(KeyedCollection, EndsAWalkWhoseMembersAreAllDeleted) {
  auto& collection = this->collection;
  this->fill(100);
  auto iterator = collection.iterator();
  iterator.advance();
  const auto key = iterator.currNodeMaybeStale()->key();
  collection.delAll();
  EXPECT_EQ(iterator.currNodeMaybeStale()->key(), key);
  EXPECT_EQ(iterator.currNodeNonStale(), nullptr);
  auto other = iterator;
  iterator.advance();
  EXPECT_FALSE(iterator);
  EXPECT_EQ(iterator.currNodeMaybeStale(), nullptr);
  EXPECT_EQ(iterator.currNodeNonStale(), nullptr);
  iterator.advance();
  EXPECT_FALSE(iterator);
  // The same members again: the other one goes on among them.
  this->fill(100);
  EXPECT_NE(other.currNodeNonStale(), nullptr);
  EXPECT_EQ(this->walk(other).size(), 99U);
}

TYPED_TEST(KeyedCollection, ShowsThePresentNodeOfAKeyThatCameBack) {
  using Node = typename TypeParam::Node;
  auto& collection = this->collection;
  this->fill(30);
  auto iterator = collection.iterator(this->key(12));
  ASSERT_TRUE(erase(collection, 12));
  EXPECT_EQ(iterator.currNodeNonStale(), nullptr);
  insert(collection, 12, 4711);
  ASSERT_NE(iterator.currNodeNonStale(), nullptr);
  EXPECT_EQ(iterator.currNodeNonStale(), collection[this->key(12)]);
  EXPECT_TRUE(holds(*iterator.currNodeNonStale(), 4711));
  if constexpr (!std::is_void_v<typename Node::Value>) {
    EXPECT_TRUE(holds(*iterator.currNodeMaybeStale(), 12));
  }
}

TYPED_TEST(KeyedCollection, CopiesIteratorsAsPlacesOfTheirOwn) {
  auto& collection = this->collection;
  this->fill(50);
  auto first = collection.iterator();
  auto second = first;
  EXPECT_EQ(first, second);
  second.advance();
  EXPECT_NE(first, second);
  EXPECT_NE(first.currNodeMaybeStale()->key(), second.currNodeMaybeStale()->key());
  const auto key = second.currNodeMaybeStale()->key();
  auto third = std::move(second);
  EXPECT_EQ(third.currNodeMaybeStale()->key(), key);
  first = third;
  EXPECT_EQ(first, third);
  // Equal also when they look at different copies of the same bucket.
  ASSERT_TRUE(collection.del(third.currNodeMaybeStale()->key()));
  insert(collection, 77);
  EXPECT_EQ(first, third);
  third = collection.iterator();
  EXPECT_NE(first, third);
  second = typename TypeParam::ConstIterator();
  EXPECT_FALSE(second);
}

TYPED_TEST(KeyedCollection, KeepsItsOrderWhateverComesAndGoes) {
  auto& collection = this->collection;
  this->fill(100);
  std::vector<typename TypeParam::Node::Key> order;
  for (auto iterator = collection.iterator(); iterator; iterator.advance()) {
    order.push_back(iterator.currNodeMaybeStale()->key());
  }
  const auto expectOrder = [&] {
    std::size_t next = 0;
    for (auto iterator = collection.iterator(); iterator; iterator.advance()) {
      if (next < order.size() && iterator.currNodeMaybeStale()->key() == order[next]) {
        ++next;
      }
    }
    EXPECT_EQ(next, order.size());
  };
  for (unsigned n = 100; n < 3000; ++n) {
    insert(collection, n);
  }
  expectOrder();
  for (unsigned n = 100; n < 3000; ++n) {
    ASSERT_TRUE(erase(collection, n));
  }
  expectOrder();
  // Long enough for the collection to become small again.
  for (unsigned i = 0; i < 40000; ++i) {
    insert(collection, 5000 + i % 3);
    ASSERT_TRUE(erase(collection, 5000 + i % 3));
  }
  expectOrder();
}

TYPED_TEST(KeyedCollection, LetsAWalkGoOnFromAKeyThatItRemembers) {
  auto& collection = this->collection;
  this->fill(400);
  // Holds no iterator between two steps, only the next key; what it has passed goes, others come.
  std::map<typename TypeParam::Node::Key, unsigned> shown;
  auto iterator = collection.iterator();
  auto next = iterator.currNodeMaybeStale()->key();
  for (unsigned step = 0;; ++step) {
    auto here = collection.iterator(next);
    ASSERT_TRUE(here);
    const auto passed = here.currNodeMaybeStale()->key();
    ++shown[passed];
    here.advance();
    if (!here) {
      break;
    }
    next = here.currNodeMaybeStale()->key();
    if (step % 2 == 0) {
      ASSERT_TRUE(collection.del(passed));
    }
    if (step < 200) {
      insert(collection, 1000 + step);
    }
  }
  for (unsigned n = 0; n < 400; ++n) {
    ASSERT_EQ(shown[this->key(n)], 1U);
  }
}

}  // namespace
}  // namespace collections_test
