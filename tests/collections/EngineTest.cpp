// The type-blind engine, its records and its buckets, as generic code meets them.

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "CollectionNodes.h"

namespace collections_test {
namespace {

using Brio::HashMap2018BucketHdr;
using Brio::HashMap2018Generic;
using Brio::HashMap2018IteratorGeneric;
using Brio::HashMap2018LinkNodeBase;
using Brio::HashMap2018VTable;
using Brio::MoveOrCopy;
using Brio::HashHelper::KeyAndRhashSeedArg;

template <class Node>
constexpr const HashMap2018VTable& vtableOf() {
  return HashMap2018VTable::Impl<Node, typename Node::Key>::record;
}

TEST(HashMap2018BucketHdr, HoldsTheCapacityFromBitFourAndTheUsedSlotsFromBitEighteen) {
  HashMap2018BucketHdr bucket(0x2aaa);
  bucket.usedIs(0x1555);
  std::uint32_t word;
  std::memcpy(&word, &bucket, sizeof word);
  EXPECT_EQ(word, 0x2aaaU << 4 | 0x1555U << 18);
  EXPECT_EQ(bucket.capacity(), 0x2aaaU);
  EXPECT_EQ(bucket.used(), 0x1555U);
  bucket.detach();
  EXPECT_EQ(bucket.capacity(), 0x2aaaU);
  EXPECT_EQ(bucket.used(), 0x1555U);
  EXPECT_TRUE(bucket.detached());
}

TEST(HashMap2018BucketHdr, CountsReferences) {
  const HashMap2018BucketHdr bucket(1);
  EXPECT_FALSE(bucket.shared());
  bucket.bktHdrRefInc();
  EXPECT_TRUE(bucket.shared());
  EXPECT_FALSE(bucket.bktHdrRefDecHelper());
  EXPECT_TRUE(bucket.bktHdrRefDecHelper());
}

TEST(HashMap2018BucketHdr, PutsHashesInFrontOfTheHeaderAndAlignedSlotsBehindIt) {
  for (const unsigned capacity : {1U, 2U, 3U, 4U, 7U, 16U, 100U}) {
    EXPECT_EQ(HashMap2018BucketHdr::slotsOffset(capacity, 8) % 8, 0U);
    EXPECT_EQ(HashMap2018BucketHdr::slotsOffset(capacity, 16) % 16, 0U);
    EXPECT_GE(HashMap2018BucketHdr::slotsOffset(capacity, 4), capacity * 4 + 8);
    EXPECT_LE(HashMap2018BucketHdr::slotsOffset(capacity, 4), capacity * 4 + 8 + 12);
  }
}

TEST(HashMap2018VTable, TellsSizeAndAlignmentInOneWord) {
  EXPECT_EQ(vtableOf<HN_Set4>().sizeWord, 4U << 16 | HashMap2018VTable::kStoredHashes | 4U);
  EXPECT_EQ(vtableOf<HN_InternalObject>().sizeWord,
            8U << 16 | HashMap2018VTable::kStoredHashes | 8U);
  EXPECT_EQ(vtableOf<HN_SetAligned>().nodeAlignment(), 16U);
  EXPECT_EQ(vtableOf<HN_MapWide>().nodeSize(), sizeof(HN_MapWide));
  // With the stored hash: 8 bytes for a four-byte key, 12 for a pointer.
  EXPECT_EQ(sizeof(HN_Set4), 4U);
  EXPECT_EQ(sizeof(HN_InternalObject), 8U);
}

TEST(HashMap2018VTable, UsesTheTrivialFunctionsForPlainValuesOnly) {
  EXPECT_EQ(vtableOf<HN_Map4>().place, &HashMap2018VTable::trivialPlace<sizeof(HN_Map4)>);
  EXPECT_EQ(vtableOf<HN_Map4>().shift, &HashMap2018VTable::trivialShift<sizeof(HN_Map4)>);
  EXPECT_EQ(vtableOf<HN_MapWide>().shift, &HashMap2018VTable::trivialShift<sizeof(HN_MapWide)>);
  EXPECT_NE(vtableOf<HN_MapObject>().place, &HashMap2018VTable::trivialPlace<sizeof(HN_MapObject)>);
  EXPECT_NE(vtableOf<HN_MapObject>().shift, &HashMap2018VTable::trivialShift<sizeof(HN_MapObject)>);
}

TEST(HashMap2018VTable, OrdersAKeyOrANodeAgainstANode) {
  const auto& vtable = vtableOf<HN_Map4>();
  const HN_Map4 five(5, 0);
  const HN_Map4 six(6, 0);
  const std::uint32_t key = 5;
  EXPECT_EQ(vtable.compareOrLruUnlink(&key, nullptr, &five), 0U);
  EXPECT_EQ(vtable.compareOrLruUnlink(&key, nullptr, &six), 1U);
  EXPECT_EQ(vtable.compareOrLruUnlink(nullptr, &six, &five), 2U);
  EXPECT_EQ(vtable.compareOrLruUnlink(&key, &six, &six), 0U) << "the node goes before the key";
  EXPECT_TRUE(vtable.keyEqualsNode(&key, &five));
  EXPECT_FALSE(vtable.keyEqualsNode(&key, &six));
}

// Raw memory for nodes.
template <class Node, unsigned count>
struct Slots {
  alignas(Node) unsigned char memory[sizeof(Node) * count];

  Node* at(unsigned slot) { return reinterpret_cast<Node*>(memory) + slot; }
  HashMap2018LinkNodeBase* first() { return at(0); }
  template <class... Args>
  void make(unsigned slot, Args&&... args) {
    ::new (static_cast<void*>(at(slot))) Node(std::forward<Args>(args)...);
  }
};

TEST(HashMap2018VTable, PlacesByMoveOrByCopyWithExactCounts) {
  const auto& vtable = vtableOf<HN_MapObject>();
  const auto object = Object::make(1);
  HN_MapObject source(1, object);
  Slots<HN_MapObject, 2> slots;
  vtable.place(&vtable, slots.at(0), &source, MoveOrCopy::copy);
  EXPECT_EQ(object->refCount(), 3U);
  vtable.place(&vtable, slots.at(1), &source, MoveOrCopy::move);
  EXPECT_EQ(object->refCount(), 3U);
  EXPECT_EQ(source.value(), nullptr);
  std::destroy_n(slots.at(0), 2);
  EXPECT_EQ(object->refCount(), 1U);
}

TEST(HashMap2018VTable, ShiftsClosedAndOpenWithExactCounts) {
  const auto& vtable = vtableOf<HN_MapObject>();
  std::vector<Lumen::Ptr<Object>> objects;
  Slots<HN_MapObject, 8> slots;
  for (unsigned i = 0; i < 6; ++i) {
    objects.push_back(Object::make(i));
    slots.make(i, i, objects[i]);
  }
  // Slots 1 and 2 are the gap.
  vtable.shift(&vtable, slots.first(), nullptr, 3, 6, -2);
  EXPECT_EQ(objects[1]->refCount(), 1U);
  EXPECT_EQ(objects[2]->refCount(), 1U);
  EXPECT_EQ(slots.at(1)->value(), objects[3]);
  EXPECT_EQ(slots.at(3)->value(), objects[5]);
  EXPECT_EQ(objects[5]->refCount(), 2U);
  HN_MapObject node(9, objects[1]);
  vtable.shift(&vtable, slots.first(), &node, 1, 4, 1);
  EXPECT_EQ(slots.at(0)->value(), objects[0]);
  EXPECT_EQ(slots.at(1)->value(), objects[1]);
  EXPECT_EQ(slots.at(2)->value(), objects[3]);
  EXPECT_EQ(slots.at(4)->value(), objects[5]);
  EXPECT_EQ(node.value(), nullptr);
  EXPECT_EQ(objects[1]->refCount(), 2U);
  std::destroy_n(slots.at(0), 5);
  for (const auto& object : objects) {
    EXPECT_EQ(object->refCount(), 1U);
  }
}

TEST(HashMap2018VTable, ShiftsPlainValuesAlike) {
  const auto& vtable = vtableOf<HN_Map4>();
  Slots<HN_Map4, 8> slots;
  for (unsigned i = 0; i < 5; ++i) {
    slots.make(i, i, i * 10ULL);
  }
  vtable.shift(&vtable, slots.first(), nullptr, 2, 5, -1);
  EXPECT_EQ(slots.at(1)->key(), 2U);
  EXPECT_EQ(slots.at(3)->value(), 40U);
  HN_Map4 node(7, 70);
  vtable.shift(&vtable, slots.first(), &node, 0, 4, 1);
  EXPECT_EQ(slots.at(0)->value(), 70U);
  EXPECT_EQ(slots.at(1)->key(), 0U);
  EXPECT_EQ(slots.at(4)->key(), 4U);
}

TEST(HashMap2018VTableDeathTest, OpensAGapOfOneOnly) {
  const auto& vtable = vtableOf<HN_MapObject>();
  Slots<HN_MapObject, 4> slots;
  HN_MapObject node(1, nullptr);
  EXPECT_DEATH(vtable.shift(&vtable, slots.first(), &node, 0, 0, 2),
               "Assertion `slotsToShift == 1' failed");
  const auto& plain = vtableOf<HN_Map4>();
  Slots<HN_Map4, 4> plainSlots;
  HN_Map4 plainNode(1, 0);
  EXPECT_DEATH(plain.shift(&plain, plainSlots.first(), &plainNode, 0, 0, 2),
               "Assertion `slotsToShift == 1' failed");
}

TEST(HashMap2018VTable, AssemblesABucketFromPiecesByMoveAndByCopy) {
  const auto& vtable = vtableOf<HN_MapObject>();
  using Impl = HashMap2018VTable::Impl<HN_MapObject, std::uint64_t>;
  const auto object = Object::make(1);
  HN_MapObject moved[2] = {HN_MapObject(1, object), HN_MapObject(2, object)};
  HN_MapObject copied[1] = {HN_MapObject(3, object)};
  ASSERT_EQ(object->refCount(), 4U);
  Slots<HN_MapObject, 4> slots;
  const Brio::HashMap2018NodeRange ranges[] = {{moved, 2, MoveOrCopy::move},
                                               {copied, 1, MoveOrCopy::copy}};
  const auto slotsBefore = Impl::nodeTracker().liveObjects();
  const auto bytesBefore = Impl::nodeTracker().liveBytes();
  EXPECT_EQ(vtable.newBucketAssemble(&vtable, 4, slots.memory, ranges, 2), 3U);
  EXPECT_EQ(Impl::nodeTracker().liveObjects() - slotsBefore, 4U);
  EXPECT_EQ(Impl::nodeTracker().liveBytes() - bytesBefore, 4 * (sizeof(HN_MapObject) + 4));
  EXPECT_EQ(object->refCount(), 5U);
  EXPECT_EQ(slots.at(2)->key(), 3U);
  std::destroy_n(slots.at(0), 3);
  Impl::nodeTracker().freed(4, 4 * (sizeof(HN_MapObject) + 4));
  HashMap2018VTable::bucketTracker().freed(1, sizeof(HashMap2018BucketHdr));
}

template <class Node>
class Engine : public testing::Test {
 protected:
  using Key = typename Node::Key;
  static constexpr const HashMap2018VTable* vtable = &vtableOf<Node>();
  static KeyAndRhashSeedArg arg(const Key& key) {
    return {&key, Brio::HashHelper::keyHash(Node::kSalt, key)};
  }
};

using MapEngine = Engine<HN_MapObject>;

TEST_F(MapEngine, InsertsFindsAndDeletesWithoutKnowingTypes) {
  const auto objects = Object::tracker().liveObjects();
  HashMap2018Generic engine(vtable, Brio::TypeSafeIndex<unsigned, 1>(1), false);
  for (std::uint64_t i = 0; i < 3000; ++i) {
    ASSERT_EQ(engine.lookupNodeG(vtable, arg(i)), nullptr);
    HN_MapObject node(i, Object::make(static_cast<unsigned>(i)));
    auto* placed = engine.newMemberG(vtable, arg(i), std::move(node));
    ASSERT_EQ(static_cast<HN_MapObject*>(placed)->key(), i);
    ASSERT_EQ(engine.lookupNodeG(vtable, arg(i)), placed);
  }
  EXPECT_EQ(engine.size(), 3000U);
  for (std::uint64_t i = 0; i < 3000; ++i) {
    if (i % 2 == 0) {
      ASSERT_TRUE(engine.deleteMemberG(vtable, arg(i), nullptr));
    } else {
      Slots<HN_MapObject, 1> out;
      ASSERT_TRUE(engine.deleteMemberG(vtable, arg(i), out.memory));
      ASSERT_EQ(out.at(0)->value()->id(), i);
      ASSERT_EQ(out.at(0)->value()->refCount(), 1U);
      std::destroy_at(out.at(0));
    }
    ASSERT_FALSE(engine.deleteMemberG(vtable, arg(i), nullptr));
    ASSERT_EQ(engine.size(), 2999 - i);
  }
  EXPECT_EQ(Object::tracker().liveObjects(), objects);
  engine.emptyAllBuckets(vtable, true);
}

TEST_F(MapEngine, LeavesWhatAnIteratorHoldsWhenItDeletesOrRemovesAll) {
  const auto objects = Object::tracker().liveObjects();
  {
    HashMap2018Generic engine(vtable, Brio::TypeSafeIndex<unsigned, 1>(1), false);
    for (std::uint64_t i = 0; i < 10; ++i) {
      engine.newMemberG(vtable, arg(i), HN_MapObject(i, Object::make(static_cast<unsigned>(i))));
    }
    const std::uint64_t key = 4;
    const HashMap2018IteratorGeneric iterator(engine, vtable, arg(key));
    const HashMap2018IteratorGeneric end(engine, vtable,
                                         HashMap2018IteratorGeneric::EndOfCollection{});
    EXPECT_NE(iterator, end);
    Slots<HN_MapObject, 1> out;
    ASSERT_TRUE(engine.deleteMemberG(vtable, arg(key), out.memory));
    EXPECT_EQ(out.at(0)->value()->refCount(), 2U) << "the iterator's bucket has it too";
    std::destroy_at(out.at(0));
    engine._memberDelAll(vtable);
    EXPECT_EQ(engine.size(), 0U);
    EXPECT_EQ(static_cast<const HN_MapObject*>(iterator.currNodeMaybeStale())->value()->id(), 4U);
    EXPECT_EQ(iterator.currNodeNonStale(), nullptr);
    engine.emptyAllBuckets(vtable, true);
  }
  EXPECT_EQ(Object::tracker().liveObjects(), objects);
}

TEST_F(MapEngine, KeepsTheDirectoryThatTheLeastSizeAsksFor) {
  HashMap2018Generic engine(vtable, Brio::TypeSafeIndex<unsigned, 1>(1000), false);
  EXPECT_EQ(engine.directorySize(), 1U) << "nothing before the first member";
  const std::uint64_t key = 1;
  engine.newMemberG(vtable, arg(key), HN_MapObject(key, nullptr));
  const unsigned size = engine.directorySize();
  EXPECT_GE(size, 64U);
  for (unsigned i = 0; i < 20000; ++i) {
    const std::uint64_t other = 2 + i;
    engine.newMemberG(vtable, arg(other), HN_MapObject(other, nullptr));
    ASSERT_TRUE(engine.deleteMemberG(vtable, arg(other), nullptr));
  }
  EXPECT_EQ(engine.directorySize(), size);
  engine.emptyAllBuckets(vtable, true);
  EXPECT_EQ(engine.directorySize(), 1U);
}

TEST_F(MapEngine, NeverShrinksADirectoryThatItIsToldToKeep) {
  HashMap2018Generic engine(vtable, Brio::TypeSafeIndex<unsigned, 1>(1), true);
  for (std::uint64_t i = 0; i < 2000; ++i) {
    engine.newMemberG(vtable, arg(i), HN_MapObject(i, nullptr));
  }
  const unsigned size = engine.directorySize();
  for (std::uint64_t i = 0; i < 2000; ++i) {
    engine.deleteMemberG(vtable, arg(i), nullptr);
  }
  for (std::uint64_t i = 0; i < 20000; ++i) {
    engine.newMemberG(vtable, arg(i), HN_MapObject(i, nullptr));
    engine.deleteMemberG(vtable, arg(i), nullptr);
  }
  EXPECT_EQ(engine.directorySize(), size);
  engine._memberDelAll(vtable);
  EXPECT_EQ(engine.directorySize(), size);
  engine.emptyAllBuckets(vtable, true);
}

TEST_F(MapEngine, DeathTestAssertsThatItIsEmptiedBeforeItIsDestroyed) {
  EXPECT_DEATH(
      {
        HashMap2018Generic engine(vtable, Brio::TypeSafeIndex<unsigned, 1>(1), false);
        const std::uint64_t key = 1;
        engine.newMemberG(vtable, arg(key), HN_MapObject(key, nullptr));
      },
      "members_ == 0");
}

using StringEngine = Engine<HN_MapString>;

TEST_F(StringEngine, FindsAStringKeyByAView) {
  HashMap2018Generic engine(vtable, Brio::TypeSafeIndex<unsigned, 1>(1), false);
  for (unsigned n = 0; n < 100; ++n) {
    const auto key = makeKey<Lumen::String>(n);
    engine.newMemberG(vtable, arg(key), makeNode<HN_MapString>(n, n));
  }
  const auto key = makeKey<Lumen::String>(42);
  const std::string longer = key + " and more";
  const auto* node = engine.lookupNodeG(
      vtable,
      Brio::HashHelper::KeyString{std::string_view(longer).substr(0, key.size()), arg(key).hash});
  ASSERT_NE(node, nullptr);
  EXPECT_TRUE(holds(*static_cast<const HN_MapString*>(node), 42));
  EXPECT_EQ(engine.lookupNodeG(vtable, Brio::HashHelper::KeyString{"absent", 1}), nullptr);
  engine.emptyAllBuckets(vtable, true);
}

}  // namespace
}  // namespace collections_test
