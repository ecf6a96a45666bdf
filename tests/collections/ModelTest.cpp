// Random operations with iterators alive, against std::map. A failure names its seed.

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <vector>

#include "CollectionNodes.h"

namespace collections_test {
namespace {

template <class Node>
class CollectionModel : public testing::Test {
 protected:
  using Collection = Brio::HashMap2018<Node>;
  using Key = typename Node::Key;

  // An iterator on its way, with what it must still show and what it has shown.
  struct Walk {
    typename Collection::ConstIterator iterator;
    std::set<unsigned> owed;
    std::set<unsigned> shown;
    unsigned at = 0;
    unsigned numberSeen = 0;
  };

  explicit CollectionModel() {
    for (unsigned n = 0; n < kKeys; ++n) {
      numberOf_[makeKey<Key>(n)] = n;
    }
  }

  void run(unsigned seed) {
    std::mt19937 random(seed);
    const unsigned keys = seed % 3 == 0 ? 40 : kKeys;
    for (unsigned step = 0; step < 4000; ++step) {
      // Phases of growing and of shrinking.
      const unsigned inserts = step / 700 % 2 == 0 ? 55 : 15;
      const unsigned dice = random() % 100;
      const unsigned n = random() % keys;
      if (dice < inserts) {
        write(n, step);
      } else if (dice < 75) {
        remove(n);
      } else if (dice < 78 && walks_.size() < 6) {
        startWalk(random() % 2 == 0, n);
      } else if (dice < 97 && !walks_.empty()) {
        stepWalk(random() % walks_.size());
      } else if (dice == 99 && random() % 40 == 0) {
        removeAll();
      }
      if (testing::Test::HasFatalFailure()) {
        return;
      }
      ASSERT_EQ(collection_.size(), model_.size());
      ASSERT_EQ(has(collection_, n), model_.count(n) != 0);
    }
    while (!walks_.empty()) {
      stepWalk(walks_.size() - 1);
      if (testing::Test::HasFatalFailure()) {
        return;
      }
    }
    unsigned shown = 0;
    for (const Node& node : collection_) {
      const unsigned n = numberOf_.at(node.key());
      ASSERT_EQ(model_.count(n), 1U);
      ASSERT_TRUE(holds(node, model_[n]));
      ++shown;
    }
    ASSERT_EQ(shown, model_.size());
    collection_.delAll();
    model_.clear();
  }

 private:
  static constexpr unsigned kKeys = 600;

  void write(unsigned n, unsigned number) {
    const Key key = makeKey<Key>(n);
    const auto arg = collection_.hashed(key);
    if (Node* node = collection_.find(arg); node != nullptr) {
      ASSERT_TRUE(holds(*node, model_.at(n)));
      if constexpr (!std::is_void_v<typename Node::Value>) {
        node->valueIs(makeNode<Node>(n, number).value());
        for (Walk& walk : walks_) {
          if (walk.iterator && walk.at == n) {
            walk.numberSeen = kUnknown;  // in place, or in a copy: either may be shown as stale
          }
        }
      }
    } else {
      ASSERT_EQ(model_.count(n), 0U);
      collection_.newMember(arg, makeNode<Node>(n, number));
    }
    model_[n] = number;
  }

  void remove(unsigned n) {
    const Key key = makeKey<Key>(n);
    Node removed = makeNode<Node>(n, kUnknown);
    ASSERT_EQ(collection_.del(collection_.hashed(key), &removed), model_.count(n) != 0);
    if (const auto found = model_.find(n); found != model_.end()) {
      ASSERT_TRUE(holds(removed, found->second));
      model_.erase(found);
    }
    for (Walk& walk : walks_) {
      walk.owed.erase(n);
    }
  }

  void removeAll() {
    collection_.delAll();
    model_.clear();
    for (Walk& walk : walks_) {
      walk.owed.clear();
    }
  }

  void startWalk(bool fromKey, unsigned n) {
    Walk walk;
    if (fromKey) {
      walk.iterator = collection_.iterator(makeKey<Key>(n));
      ASSERT_EQ(static_cast<bool>(walk.iterator), model_.count(n) != 0);
    } else {
      walk.iterator = collection_.iterator();
      ASSERT_EQ(static_cast<bool>(walk.iterator), !model_.empty());
      for (const auto& [key, number] : model_) {
        walk.owed.insert(key);
      }
    }
    if (walk.iterator) {
      arrive(walk);
      walks_.push_back(walk);
    }
  }

  // Checks where a walk has come to.
  void arrive(Walk& walk) {
    const Node* seen = walk.iterator.currNodeMaybeStale();
    walk.at = numberOf_.at(seen->key());
    ASSERT_EQ(model_.count(walk.at), 1U) << "a walk goes to members only";
    ASSERT_TRUE(walk.shown.insert(walk.at).second) << "shown twice";
    walk.owed.erase(walk.at);
    walk.numberSeen = model_[walk.at];
    ASSERT_TRUE(holds(*seen, walk.numberSeen));
    ASSERT_EQ(walk.iterator.currNodeNonStale(), collection_[seen->key()]);
  }

  void stepWalk(std::size_t index) {
    Walk& walk = walks_[index];
    ASSERT_EQ(numberOf_.at(walk.iterator.currNodeMaybeStale()->key()), walk.at);
    if (walk.numberSeen != kUnknown) {
      ASSERT_TRUE(holds(*walk.iterator.currNodeMaybeStale(), walk.numberSeen));
    }
    ASSERT_EQ(walk.iterator.currNodeNonStale(), collection_[makeKey<Key>(walk.at)]);
    walk.iterator.advance();
    if (walk.iterator) {
      arrive(walk);
      return;
    }
    ASSERT_TRUE(walk.owed.empty()) << "a member that was there all the time was not shown";
    walks_.erase(walks_.begin() + static_cast<std::ptrdiff_t>(index));
  }

  static constexpr unsigned kUnknown = 0xffffffff;

  Collection collection_;
  std::map<unsigned, unsigned> model_;  // number of the key to number in the value
  std::map<Key, unsigned> numberOf_;
  std::vector<Walk> walks_;
};

using ModelNodes = testing::Types<HN_Set4, HN_Map4, HN_SetFields, HN_MapObject, HN_MapWide,
                                  HN_MapString, HN_SetColliding<1>, HN_SetColliding<12>,
                                  HN_MapColliding, HN_InternalObject, HN_InternalEntry>;
TYPED_TEST_SUITE(CollectionModel, ModelNodes);

TYPED_TEST(CollectionModel, AgreesUnderRandomOperationsAndWalks) {
  const auto buckets = Brio::HashMap2018VTable::bucketTracker().liveObjects();
  const auto objects = Object::tracker().liveObjects();
  for (unsigned seed = 1; seed <= 12; ++seed) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    this->run(seed);
    if (testing::Test::HasFatalFailure()) {
      return;
    }
    EXPECT_EQ(Brio::HashMap2018VTable::bucketTracker().liveObjects(), buckets);
    EXPECT_EQ(Object::tracker().liveObjects(), objects);
  }
}

}  // namespace
}  // namespace collections_test
