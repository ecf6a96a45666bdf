// What the collection promises beyond the contract of a map: what it costs, what it counts, and
// what the engine and its records look like from below.

#include "Brio/HashMap2018.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "CollectionNodes.h"

namespace collections_test {
namespace {

template <class Node>
using ImplOf = Brio::HashMap2018VTable::Impl<Node, typename Node::Key>;
template <class Node>
std::uint64_t liveSlots() {
  return ImplOf<Node>::nodeTracker().liveObjects();
}
std::uint64_t liveBuckets() { return Brio::HashMap2018VTable::bucketTracker().liveObjects(); }

// A key that counts what is done with it.
struct CountingKey {
  std::uint32_t value = 0;
  std::uint64_t filler = 0;

  static inline unsigned hashes = 0;
  static inline unsigned comparisons = 0;

  [[nodiscard]] std::uint32_t hash(std::uint32_t seed) const {
    ++hashes;
    return Brio::hashSingleAttr(seed, value);
  }
  [[nodiscard]] bool isEq(const CountingKey& other) const {
    ++comparisons;
    return value == other.value;
  }
  friend auto operator<=>(const CountingKey&, const CountingKey&) = default;
};
struct HN_Counting : Brio::Hm2018NE<11, CountingKey, std::uint32_t, 1> {
  using Hm2018NE::Hm2018NE;
};

TEST(HashMap2018, AllocatesNothingWhileItIsEmpty) {
  const auto buckets = liveBuckets();
  const Brio::HashMap2018<HN_Map4> map;
  EXPECT_EQ(liveBuckets(), buckets);
  EXPECT_EQ(map.slotCount(), 0U);
  EXPECT_LE(sizeof(map), 64U);
}

TEST(HashMap2018, HashesAKeyOncePerOperation) {
  Brio::HashMap2018<HN_Counting> map;
  CountingKey::hashes = 0;
  EXPECT_EQ(map[CountingKey{1}], nullptr);
  EXPECT_FALSE(map.del(CountingKey{1}));
  EXPECT_EQ(CountingKey::hashes, 0U) << "an empty collection needs no hash";
  for (std::uint32_t i = 0; i < 10000; ++i) {
    const CountingKey key{i};
    const auto arg = map.hashed(key);
    ASSERT_EQ(map.find(arg), nullptr);
    map.newMember(arg, HN_Counting(key, i));
  }
  EXPECT_EQ(CountingKey::hashes, 10000U) << "growing hashes nothing again";
  EXPECT_NE(map[CountingKey{7}], nullptr);
  EXPECT_EQ(CountingKey::hashes, 10001U);
  EXPECT_TRUE(map.del(CountingKey{7}));
  EXPECT_EQ(CountingKey::hashes, 10002U);
  CountingKey::hashes = 0;
  for (const auto& node : map) {
    EXPECT_LT(node.value(), 10000U);
  }
  EXPECT_EQ(CountingKey::hashes, 0U);
}

TEST(HashMap2018, ComparesStoredHashesBeforeKeys) {
  Brio::HashMap2018<HN_Counting> map;
  for (std::uint32_t i = 0; i < 10000; ++i) {
    const CountingKey key{i};
    map.newMember(map.hashed(key), HN_Counting(key, i));
  }
  CountingKey::comparisons = 0;
  for (std::uint32_t i = 0; i < 10000; ++i) {
    ASSERT_NE(map[CountingKey{i}], nullptr);
  }
  // Two of 10,000 random 32-bit hashes are equal in one case of hundred.
  EXPECT_LE(CountingKey::comparisons, 10003U);
  CountingKey::comparisons = 0;
  for (std::uint32_t i = 10000; i < 20000; ++i) {
    ASSERT_EQ(map[CountingKey{i}], nullptr);
  }
  EXPECT_LE(CountingKey::comparisons, 3U);
}

TEST(HashMap2018, SaltsEachCollectionTypeApart) {
  struct HN_Other : Brio::Hm2018NE<3760285789, std::uint32_t, void, 1> {
    using Hm2018NE::Hm2018NE;
  };
  const Brio::HashMap2018<HN_Set4> one;
  const Brio::HashMap2018<HN_Other> other;
  const std::uint32_t key = 42;
  const std::uint32_t seed = Brio::HashHelper::hashSeed32() ^ 3760285788U;
  EXPECT_EQ(one.hashed(key).hash, Brio::hashSingleAttr(seed, key));
  EXPECT_EQ(one.hashed(key).key, &key);
  EXPECT_NE(one.hashed(key).hash, other.hashed(key).hash);
}

template <class Node>
class CollectionAccounts : public testing::Test {};
using AccountedNodes = testing::Types<HN_Set4, HN_Map4, HN_MapObject, HN_MapWide, HN_MapString,
                                      HN_InternalObject, HN_SetColliding<3>, HN_SetAligned>;
TYPED_TEST_SUITE(CollectionAccounts, AccountedNodes);

TYPED_TEST(CollectionAccounts, ReturnToWhereTheyWere) {
  const auto buckets = liveBuckets();
  const auto slots = liveSlots<TypeParam>();
  const auto objects = Object::tracker().liveObjects();
  {
    Brio::HashMap2018<TypeParam> map;
    for (unsigned n = 0; n < 3000; ++n) {
      insert(map, n);
    }
    EXPECT_EQ(liveSlots<TypeParam>() - slots, map.slotCount());
    auto early = map.iterator();
    auto late = map.iterator(makeKey<typename TypeParam::Key>(1234));
    for (unsigned n = 0; n < 3000; n += 2) {
      erase(map, n);
    }
    const auto stays = early;
    early = late;
    EXPECT_GE(liveSlots<TypeParam>() - slots, map.slotCount());
    map.delAll();
    EXPECT_EQ(map.slotCount(), 0U);
    EXPECT_GT(liveSlots<TypeParam>(), slots) << "what iterators hold stays";
    EXPECT_TRUE(stays);
    for (unsigned n = 0; n < 100; ++n) {
      insert(map, n);
    }
  }
  EXPECT_EQ(liveBuckets(), buckets);
  EXPECT_EQ(liveSlots<TypeParam>(), slots);
  EXPECT_EQ(ImplOf<TypeParam>::nodeTracker().liveBytes(), slots * (sizeof(TypeParam) + 4));
  EXPECT_EQ(Object::tracker().liveObjects(), objects);
}

TYPED_TEST(CollectionAccounts, ShowLittleSlackAtLoad) {
  if (std::is_same_v<TypeParam, HN_SetColliding<3>>) {
    return;
  }
  Brio::HashMap2018<TypeParam> map;
  const double slot = sizeof(TypeParam) + 4;
  double sum = 0;
  unsigned samples = 0;
  for (unsigned n = 0; n < 40000; ++n) {
    insert(map, n);
    if (n >= 5000 && n % 500 == 0) {
      const double bytes = map.slotCount() * slot +
                           map.generic().directorySize() * sizeof(Brio::HashMap2018DirectoryEntry);
      sum += bytes / (n + 1) / slot;
      ++samples;
    }
  }
  // The directory's share weighs most on the smallest node.
  EXPECT_LE(sum / samples, sizeof(TypeParam) <= 8 ? 2.1 : 1.8);
}

TEST(HashMap2018, HoldsOneReferenceForEachMember) {
  Brio::HashMap2018<HN_MapObject> map;
  const auto object = Object::make(1);
  for (std::uint64_t i = 0; i < 500; ++i) {
    map.newMember(map.hashed(i), HN_MapObject(i, object));
    ASSERT_EQ(object->refCount(), i + 2);
  }
  HN_MapObject removed(0, nullptr);
  for (std::uint64_t i = 0; i < 200; ++i) {
    const bool out = i % 2 == 0;
    ASSERT_TRUE(map.del(map.hashed(i), out ? &removed : nullptr));
    removed.valueIs(nullptr);
    ASSERT_EQ(object->refCount(), 500 - i);
  }
  map.delAll();
  EXPECT_EQ(object->refCount(), 1U);
}

TEST(HashMap2018, CopiesABucketThatAnIteratorHoldsBeforeItChangesIt) {
  Brio::HashMap2018<HN_MapObject> map;
  const auto object = Object::make(1);
  for (std::uint64_t i = 0; i < 8; ++i) {
    map.newMember(map.hashed(i), HN_MapObject(i, object));
  }
  ASSERT_EQ(object->refCount(), 9U);
  {
    auto iterator = map.iterator();
    const std::uint64_t there = iterator.currNodeMaybeStale()->key();
    ASSERT_TRUE(map.del(there));
    EXPECT_EQ(object->refCount(), 1U + 8U + 7U) << "the old bucket and the new one";
    EXPECT_EQ(iterator.currNodeMaybeStale()->value(), object);
    const std::uint64_t key = 100;
    map.newMember(map.hashed(key), HN_MapObject(key, object));
    EXPECT_EQ(object->refCount(), 1U + 8U + 8U) << "the new one changes in place";
    iterator.advance();
    EXPECT_EQ(object->refCount(), 1U + 8U) << "the old one goes with its last holder";
    auto kept = iterator;
    map.delAll();
    EXPECT_EQ(object->refCount(), 1U + 8U);
  }
  EXPECT_EQ(object->refCount(), 1U);
}

TEST(HashMap2018, LetsAnIteratorOutliveTheCollectionAsAHolderOfItsNode) {
  Brio::HashMap2018<HN_MapObject>::ConstIterator iterator;
  const auto object = Object::make(5);
  {
    Brio::HashMap2018<HN_MapObject> map;
    const std::uint64_t key = 3;
    map.newMember(map.hashed(key), HN_MapObject(key, object));
    iterator = map.iterator();
  }
  EXPECT_EQ(iterator.currNodeMaybeStale()->value()->id(), 5U);
  iterator = {};
  EXPECT_EQ(object->refCount(), 1U);
}

TEST(HashMap2018, KeepsItsDirectoryWhenItIsFilledAndDrainedAgainAndAgain) {
  // Of several sizes, so that an epoch ends when the collection is full, half full, all but empty.
  for (const unsigned members : {4700U, 5000U, 6100U, 7000U, 9200U}) {
    Brio::HashMap2018<HN_Map4> map;
    unsigned size = 0;
    for (unsigned round = 0; round < 12; ++round) {
      for (unsigned n = 0; n < members; ++n) {
        insert(map, n);
      }
      if (round == 0) {
        size = map.generic().directorySize();
      }
      ASSERT_EQ(map.generic().directorySize(), size);
      for (unsigned n = 0; n < members; ++n) {
        erase(map, n);
        ASSERT_EQ(map.generic().directorySize(), size);
      }
      ASSERT_EQ(map.slotCount(), 0U);
    }
  }
}

TEST(HashMap2018, GivesItsDirectoryBackWhenItStaysSmall) {
  Brio::HashMap2018<HN_Map4> map;
  for (unsigned n = 0; n < 20000; ++n) {
    insert(map, n);
  }
  const unsigned large = map.generic().directorySize();
  for (unsigned n = 50; n < 20000; ++n) {
    erase(map, n);
  }
  // An epoch of erasures or two has to pass without the many.
  for (unsigned i = 0; i < 160000; ++i) {
    insert(map, 20000);
    erase(map, 20000);
  }
  EXPECT_LE(map.generic().directorySize(), large / 64);
  EXPECT_EQ(map.size(), 50U);
  for (unsigned n = 0; n < 50; ++n) {
    EXPECT_TRUE(has(map, n));
  }
}

TEST(HashMap2018, BearsAValueThatDeletesOtherMembersOnItsWayOut) {
  Brio::HashMap2018<HN_MapObject> map;
  const auto fill = [&] {
    for (std::uint64_t i = 0; i < 300; ++i) {
      auto object = Object::make(static_cast<unsigned>(i));
      object->onDestructionIs([&map, i] {
        map.del(i + 1);
        map.del(i + 2);
        const std::uint64_t key = 1000 + i;
        map.newMember(map.hashed(key), HN_MapObject(key, nullptr));
      });
      map.newMember(map.hashed(i), HN_MapObject(i, object));
    }
  };
  fill();
  EXPECT_TRUE(map.del(0));
  EXPECT_EQ(map.size(), 300U);
  for (std::uint64_t i = 0; i < 300; ++i) {
    EXPECT_EQ(map[i], nullptr);
    EXPECT_NE(map[1000 + i], nullptr);
  }
  map.delAll();
  fill();
  map.delAll();
  for (std::uint64_t i = 0; i < 300; ++i) {
    EXPECT_EQ(map[i], nullptr);
  }
  map.delAll();
  EXPECT_TRUE(map.empty());
}

TEST(HashMap2018, BearsAValueThatDeletesOthersWhenAnIteratorLetsGoOfIt) {
  Brio::HashMap2018<HN_MapObject> map;
  for (std::uint64_t i = 0; i < 10; ++i) {
    auto object = Object::make(static_cast<unsigned>(i));
    object->onDestructionIs([&map, i] { map.del(i + 1); });
    map.newMember(map.hashed(i), HN_MapObject(i, object));
  }
  auto iterator = map.iterator();
  for (std::uint64_t i = 0; i < 10; i += 2) {
    map.del(i);
  }
  while (iterator) {
    iterator.advance();
  }
  EXPECT_TRUE(map.empty());
}

TEST(HashMap2018, MakesALargeNodeInItsPlace) {
  Brio::HashMap2018<HN_MapWide> map;
  for (unsigned n = 0; n < 1000; ++n) {
    const auto key = makeKey<WideKey>(n);
    const auto& node = map.emplaceMember(map.hashed(key), key, n);
    EXPECT_EQ(node.value(), n);
    EXPECT_EQ(map[key], &node);
  }
}

// Keys with chosen hashes.
struct ChosenKey {
  std::uint32_t value = 0;
  std::uint32_t chosen = 0;

  [[nodiscard]] std::uint32_t hash(std::uint32_t) const noexcept { return chosen; }
  [[nodiscard]] bool isEq(const ChosenKey& other) const noexcept { return value == other.value; }
  friend auto operator<=>(const ChosenKey& a, const ChosenKey& b) noexcept {
    return a.value <=> b.value;
  }
};
struct HN_Chosen : Brio::Hm2018NE<12, ChosenKey, void, 1> {
  using Hm2018NE::Hm2018NE;
};
void insertChosen(Brio::HashMap2018<HN_Chosen>& map, std::uint32_t value, std::uint32_t hash) {
  const ChosenKey key{value, hash};
  map.newMember(map.hashed(key), HN_Chosen(key));
}

TEST(HashMap2018, HoldsAsManyKeysOfOneHashAsABucketHasSlots) {
  Brio::HashMap2018<HN_Chosen> map;
  for (std::uint32_t i = 0; i < 16383; ++i) {
    insertChosen(map, i * 7 % 16383, 0xdeadbeef);
  }
  for (std::uint32_t i = 0; i < 16383; ++i) {
    const auto* node = map[ChosenKey{i, 0xdeadbeef}];
    ASSERT_NE(node, nullptr);
    ASSERT_EQ(node->key().value, i);
  }
  EXPECT_EQ((map[ChosenKey{16383, 0xdeadbeef}]), nullptr);
  for (std::uint32_t i = 0; i < 16383; i += 2) {
    ASSERT_TRUE(map.del(ChosenKey{i, 0xdeadbeef}));
  }
  EXPECT_EQ(map.size(), 8191U);
  std::uint32_t expected = 1;
  for (const auto& node : map) {
    ASSERT_EQ(node.key().value, expected);
    expected += 2;
  }
}

TEST(HashMap2018DeathTest, NamesTheLimitWhenTooManyKeysHaveOneHash) {
  Brio::HashMap2018<HN_Chosen> map;
  for (std::uint32_t i = 0; i < 16383; ++i) {
    insertChosen(map, i, 1);
  }
  EXPECT_DEATH(insertChosen(map, 16383, 1),
               "a bucket of HashMap2018 is full: more than 16383 keys have one hash");
}

TEST(HashMap2018, PartsAnOverfullBucketByALargerDirectory) {
  Brio::HashMap2018<HN_Chosen> map;
  // All hashes are alike in their top 17 bits.
  for (std::uint32_t i = 0; i < 24000; ++i) {
    insertChosen(map, i, i % 0x8000);
  }
  EXPECT_EQ(map.size(), 24000U);
  for (std::uint32_t i = 0; i < 24000; ++i) {
    ASSERT_NE((map[ChosenKey{i, i % 0x8000}]), nullptr);
  }
  for (std::uint32_t i = 0; i < 24000; ++i) {
    ASSERT_TRUE(map.del(ChosenKey{i, i % 0x8000}));
  }
  EXPECT_TRUE(map.empty());
}

TEST(HashMap2018, DoesNotMergeBucketsThatFitIntoNone) {
  Brio::HashMap2018<HN_Chosen> map;
  // Two buckets that are neighbours in a directory of 2^17, each nearly as full as one can be; then
  // as many members elsewhere, which go again, so that the directory might shrink.
  constexpr std::uint32_t kHalf = 0x2000 + 0x1000;
  for (std::uint32_t i = 0; i < 2 * kHalf; ++i) {
    insertChosen(map, i, i % 2 * 0x8000 + i / 2 % 0x4000);
  }
  for (std::uint32_t i = 0; i < 400000; ++i) {
    insertChosen(map, 1000000 + i, i << 12);
  }
  for (std::uint32_t i = 0; i < 400000; ++i) {
    ASSERT_TRUE(map.del(ChosenKey{1000000 + i, i << 12}));
  }
  EXPECT_EQ(map.size(), 2 * kHalf);
  for (std::uint32_t i = 0; i < 2 * kHalf; ++i) {
    ASSERT_NE((map[ChosenKey{i, i % 2 * 0x8000 + i / 2 % 0x4000}]), nullptr) << i;
  }
}

TEST(HashMap2018Iterator, RunsInARangeForWhoseBodyDeletesWhatItIsShown) {
  Brio::HashMap2018<HN_MapString> map;
  for (unsigned n = 0; n < 200; ++n) {
    insert(map, n, n);
  }
  unsigned shown = 0;
  for (const auto& node : map) {
    ++shown;
    ASSERT_TRUE(map.del(node.key()));
    ASSERT_FALSE(node.key().empty());
  }
  EXPECT_EQ(shown, 200U);
  EXPECT_TRUE(map.empty());
}

TEST(HashMap2018Iterator, IsAnInputIterator) {
  static_assert(std::is_same_v<std::iterator_traits<Brio::StdIterator<HN_Map4>>::iterator_category,
                               std::input_iterator_tag>);
  Brio::HashMap2018<HN_Map4> map;
  insert(map, 1, 10);
  insert(map, 2, 20);
  EXPECT_EQ(std::distance(map.begin(), map.end()), 2);
  auto iterator = map.begin();
  const auto before = iterator++;
  EXPECT_NE(before, iterator);
  EXPECT_EQ(before->value() + iterator->value(), 30U);
}

TEST(HashMap2018IteratorDeathTest, AssertsIterWithoutACollection) {
  Brio::StdIterator<HN_Map4> iterator;
  EXPECT_DEATH(static_cast<void>(*iterator), "Assertion `iter_' failed");
  EXPECT_DEATH(static_cast<void>(iterator->key()), "Assertion `iter_' failed");
  EXPECT_DEATH(++iterator, "Assertion `iter_' failed");
  const Brio::HashMap2018<HN_Map4> map;
  EXPECT_DEATH(static_cast<void>(*map.end()), "Assertion `iter_' failed");
}

TEST(HashMap2018NodeInternalKey, ComputesTheKeyFromTheValueAndTakesTheDefaultForNull) {
  const HN_InternalObject none{Lumen::Ptr<KeyedObject>()};
  EXPECT_EQ(none.key(), FieldsKey());
  const FieldsKey key{1, 2, 3, 4};
  const HN_InternalObject some(Lumen::makeNode<KeyedObject>(key, 1));
  EXPECT_EQ(some.key(), key);
}

TEST(HashMap2018NodeInternalKey, OverwritesAValueOfTheSameKeyInPlace) {
  Brio::HashMap2018<HN_InternalEntry> map;
  insert(map, 1, 10);
  const auto key = makeKey<FieldsKey>(1);
  auto* node = map.find(map.hashed(key));
  node->valueIs(Entry{key, 11});
  EXPECT_EQ(map[key], node);
  EXPECT_EQ(map[key]->value().number, 11U);
  EXPECT_EQ(map.size(), 1U);
}

TEST(HashMap2018NodeInternalKeyDeathTest, AssertsThatAValueKeepsItsKey) {
  HN_InternalEntry node(Entry{makeKey<FieldsKey>(1), 0});
  EXPECT_DEATH(node.valueIs(Entry{makeKey<FieldsKey>(2), 0}),
               "Assertion `fwkKey\\(\\) == KeyFunktor\\(\\)\\( _value \\)' failed");
}

}  // namespace
}  // namespace collections_test
