#include "Lumen/RQueue.h"

#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <random>
#include <type_traits>
#include <utility>

#include "CollectionObject.h"
#include "Lumen/Ptr.h"

namespace {

using collections_test::Object;

struct QE_Number;
struct QE_Handle;
using Numbers = Lumen::RQueue<unsigned, false, QE_Number>;
using Handles = Lumen::RQueue<Lumen::Ptr<Object>, false, QE_Handle>;
using Chunk = Lumen::RQueueBase<unsigned>::Array;

static_assert(sizeof(Numbers) == sizeof(void*), "the queue is the pointer to its tail");
static_assert(sizeof(Chunk) == 16);

std::uint64_t numberSlots() { return Numbers::elementTracker().liveObjects(); }
std::uint64_t numberChunks() { return Numbers::chunkTracker().liveObjects(); }

unsigned deqValue(Numbers& queue) {
  unsigned value = 0;
  unsigned index = 0;
  EXPECT_TRUE(queue.deq(value, index));
  return value;
}

TEST(RQueueChunk, PacksItsThreeSmallFieldsIntoOneWordFromTheLowBit) {
  Chunk chunk(8, 0x12345678);
  chunk.beginPos = 0x2aaa;
  chunk.endPos = 0x3001;
  std::uint32_t words[4];
  std::memcpy(words, &chunk, sizeof chunk);
  EXPECT_EQ(words[2], 0x2aaaU | 0x3001U << 14 | 3U << 28);
  EXPECT_EQ(words[3], 0x12345678U);
  EXPECT_EQ(chunk.capacity(), 8U);
  EXPECT_EQ(Chunk(0, 1).capacity(), 0U);
  EXPECT_EQ(Chunk(8192, 1).capacity(), 8192U);
}

TEST(RQueue, IsEmptyWithoutAnyMemoryWhenFresh) {
  const auto chunks = numberChunks();
  const Numbers queue;
  EXPECT_TRUE(queue.empty());
  EXPECT_EQ(queue.size(), 0U);
  EXPECT_EQ(queue.frontIndex(), 1U);
  EXPECT_EQ(queue.backIndex(), 0U);
  EXPECT_EQ(queue.front(), nullptr);
  EXPECT_EQ(queue.back(), nullptr);
  for (const unsigned index : {0U, 1U, 2U, 0x7fffffffU, 0x80000000U, 0x80000001U, 0xffffffffU}) {
    EXPECT_FALSE(queue.has(index));
    EXPECT_EQ(queue.at(index), nullptr);
  }
  EXPECT_EQ(numberChunks(), chunks);
}

TEST(RQueue, GivesTheFirstElementTheIndexOneInAChunkOfFour) {
  const auto slots = numberSlots();
  Numbers queue;
  EXPECT_EQ(queue.enq(70), 1U);
  EXPECT_EQ(numberSlots() - slots, 4U);
  EXPECT_EQ(*queue.front(), 70U);
  EXPECT_EQ(*queue.back(), 70U);
  EXPECT_EQ(*queue.at(1), 70U);
}

TEST(RQueue, GrowsChunkByChunkWithTheBacklog) {
  const auto slots = numberSlots();
  Numbers queue;
  for (unsigned i = 1; i <= 4; ++i) {
    queue.enq(i);
  }
  EXPECT_EQ(numberSlots() - slots, 4U);
  queue.enq(5);
  EXPECT_EQ(numberSlots() - slots, 4U + 8U);
  for (unsigned i = 6; i <= 12; ++i) {
    queue.enq(i);
  }
  EXPECT_EQ(numberSlots() - slots, 4U + 8U);
  queue.enq(13);
  EXPECT_EQ(numberSlots() - slots, 4U + 8U + 16U);
  for (unsigned i = 1; i <= 13; ++i) {
    EXPECT_EQ(*queue.at(i), i);
  }
}

TEST(RQueue, NeverMakesAChunkOfMoreThanTheLargestCapacity) {
  const auto slots = numberSlots();
  Numbers queue;
  // 4 + 8 + ... + 8192 slots, and then two more chunks.
  for (unsigned i = 1; i <= 16380 + 8193; ++i) {
    ASSERT_EQ(queue.enq(i), i);
  }
  EXPECT_EQ(numberSlots() - slots, 16380U + 2 * 8192U);
  for (unsigned i = 1; i <= 16380 + 8193; ++i) {
    ASSERT_EQ(*queue.at(i), i);
  }
  for (unsigned i = 1; i <= 16380 + 8193; ++i) {
    ASSERT_EQ(deqValue(queue), i);
  }
  EXPECT_EQ(numberSlots(), slots);
}

TEST(RQueue, StaysAtFourSlotsWhileItIsShort) {
  Numbers queue;
  const auto slots = numberSlots();
  queue.enq(0);
  for (unsigned i = 1; i < 1000; ++i) {
    queue.enq(i);
    EXPECT_EQ(deqValue(queue), i - 1);
    EXPECT_LE(numberSlots() - slots, 8U);
  }
}

TEST(RQueue, AllocatesNothingWhileTheTailHasRoom) {
  Numbers queue;
  for (unsigned i = 0; i < 8192; ++i) {
    queue.enq(i);
  }
  // The tail chunk is new and large: taking and giving one at a time stays in it.
  queue.enq(0);
  const auto allocations = Numbers::chunkTracker().allocations();
  for (unsigned i = 0; i < 2000; ++i) {
    deqValue(queue);
    queue.enq(i);
  }
  EXPECT_EQ(Numbers::chunkTracker().allocations(), allocations);
}

TEST(RQueue, DoesNotMoveElementsWhenItGrows) {
  Numbers queue;
  queue.enq(1);
  const unsigned* first = queue.front();
  for (unsigned i = 2; i < 5000; ++i) {
    queue.enq(i);
  }
  EXPECT_EQ(queue.front(), first);
}

TEST(RQueue, LeavesAMarkerWhenItIsReadEmptyAndGoesOnWithTheNextIndex) {
  const auto slots = numberSlots();
  const auto chunks = numberChunks();
  Numbers queue;
  queue.enq(10);
  queue.enq(11);
  unsigned value = 0;
  unsigned index = 0;
  ASSERT_TRUE(queue.deq(value, index));
  EXPECT_EQ(index, 1U);
  ASSERT_TRUE(queue.deq(value, index));
  EXPECT_EQ(index, 2U);
  EXPECT_EQ(value, 11U);
  EXPECT_EQ(numberSlots(), slots);
  EXPECT_EQ(numberChunks() - chunks, 1U);
  EXPECT_TRUE(queue.empty());
  EXPECT_EQ(queue.frontIndex(), 3U);
  EXPECT_EQ(queue.backIndex(), 2U);
  EXPECT_FALSE(queue.has(2));
  EXPECT_FALSE(queue.has(3));
  EXPECT_EQ(queue.front(), nullptr);
  value = 99;
  index = 98;
  EXPECT_FALSE(queue.deq(value, index));
  EXPECT_EQ(value, 99U);
  EXPECT_EQ(index, 98U);
  EXPECT_EQ(queue.enq(12), 3U);
  EXPECT_EQ(numberSlots() - slots, 4U);
  EXPECT_EQ(numberChunks() - chunks, 1U);
}

TEST(RQueue, KeepsTheIndexRunningWhenItIsClearedSo) {
  Numbers queue;
  queue.doClear(true);  // no chunk: nothing to keep
  EXPECT_EQ(queue.enq(1), 1U);
  for (unsigned i = 2; i <= 20; ++i) {
    queue.enq(i);
  }
  queue.doClear(true);
  EXPECT_TRUE(queue.empty());
  EXPECT_EQ(queue.frontIndex(), 21U);
  EXPECT_EQ(queue.at(20), nullptr);
  EXPECT_EQ(queue.enq(21), 21U);
  queue.doClear(false);
  EXPECT_EQ(queue.enq(1), 1U);
}

TEST(RQueue, YieldsNullForAnIndexAlreadyDequeued) {
  Numbers queue;
  for (unsigned i = 1; i <= 30; ++i) {
    queue.enq(i);
  }
  for (unsigned i = 1; i <= 9; ++i) {
    deqValue(queue);
  }
  EXPECT_EQ(queue.at(9), nullptr);
  EXPECT_FALSE(queue.has(9));
  EXPECT_EQ(*queue.at(10), 10U);
  EXPECT_EQ(*queue.at(30), 30U);
  EXPECT_EQ(queue.at(31), nullptr);
  EXPECT_EQ(queue.at(0), nullptr);
  // The far side of the circle is neither before nor after anything.
  for (const unsigned index :
       {10 + 0x7fffffffU, 10 + 0x80000000U, 30 + 0x7fffffffU, 9 + 0x80000000U}) {
    EXPECT_FALSE(queue.has(index));
    EXPECT_EQ(queue.at(index), nullptr);
  }
}

TEST(RQueueIter, WalksAllChunksWithTheirIndexes) {
  Numbers queue;
  EXPECT_FALSE(queue.constIter());
  for (unsigned i = 1; i <= 100; ++i) {
    queue.enq(i * 7);
  }
  unsigned index = 1;
  auto iter = queue.constIter();
  for (; iter; ++iter, ++index) {
    EXPECT_EQ(iter.index(), index);
    EXPECT_EQ(*iter, index * 7);
  }
  EXPECT_EQ(index, 101U);
  iter.increment();
  EXPECT_FALSE(iter);
}

TEST(RQueueIter, GoesOnAtTheNewFrontWhenItsElementWasDequeued) {
  Numbers queue;
  for (unsigned i = 1; i <= 50; ++i) {
    queue.enq(i);
  }
  auto iter = queue.constIter();
  ++iter;
  EXPECT_EQ(iter.index(), 2U);
  for (unsigned i = 0; i < 30; ++i) {
    deqValue(queue);
  }
  iter.increment();
  ASSERT_TRUE(iter);
  EXPECT_EQ(iter.index(), 31U);
  EXPECT_EQ(*iter, 31U);
  // Standing on what is the front now, it goes on as usual.
  deqValue(queue);
  deqValue(queue);
  iter.increment();
  EXPECT_EQ(iter.index(), 33U);
}

TEST(RQueueIter, EndsOnAnEmptiedQueue) {
  for (const bool byClear : {false, true}) {
    Numbers queue;
    for (unsigned i = 1; i <= 10; ++i) {
      queue.enq(i);
    }
    auto iter = queue.constIter();
    ++iter;
    if (byClear) {
      queue.doClear(true);
    }
    while (!queue.empty()) {
      deqValue(queue);
    }
    iter.increment();
    EXPECT_FALSE(iter);
    EXPECT_EQ(iter.index(), 0U);
  }
}

TEST(RQueueIter, MeetsElementsThatComeBehindIt) {
  Numbers queue;
  queue.enq(1);
  auto iter = queue.constIter();
  for (unsigned i = 2; i <= 20; ++i) {
    queue.enq(i);
  }
  unsigned last = 0;
  for (; iter; ++iter) {
    last = *iter;
  }
  EXPECT_EQ(last, 20U);
}

TEST(RQueue, LetsIndexesWrapWithoutHarm) {
  Numbers queue(0xfffffff0U);
  EXPECT_TRUE(queue.empty());
  EXPECT_EQ(queue.frontIndex(), 0xfffffff0U);
  for (unsigned i = 0; i < 40; ++i) {
    ASSERT_EQ(queue.enq(i), 0xfffffff0U + i);
  }
  EXPECT_EQ(queue.frontIndex(), 0xfffffff0U);
  EXPECT_EQ(queue.backIndex(), 23U);
  EXPECT_EQ(queue.size(), 40U);
  for (unsigned i = 0; i < 40; ++i) {
    ASSERT_TRUE(queue.has(0xfffffff0U + i));
    ASSERT_EQ(*queue.at(0xfffffff0U + i), i);
  }
  EXPECT_FALSE(queue.has(0xffffffefU));
  EXPECT_FALSE(queue.has(24));
  auto iter = queue.constIter();
  for (unsigned i = 0; i < 20; ++i) {
    unsigned value = 0;
    unsigned index = 0;
    ASSERT_TRUE(queue.deq(value, index));
    EXPECT_EQ(index, 0xfffffff0U + i);
    EXPECT_EQ(value, i);
  }
  iter.increment();
  EXPECT_EQ(iter.index(), 4U);
  EXPECT_EQ(*iter, 20U);
  EXPECT_EQ(queue.at(0xffffffffU), nullptr);
  EXPECT_EQ(queue.at(3), nullptr);
  EXPECT_EQ(*queue.at(4), 20U);
}

TEST(RQueue, HoldsOneReferenceForEachElementAndGivesItToWhoDequeues) {
  const auto objects = Object::tracker().liveObjects();
  const auto chunks = Handles::chunkTracker().liveObjects();
  const auto slots = Handles::elementTracker().liveObjects();
  {
    Handles queue;
    auto object = Object::make(1);
    queue.enq(object);
    EXPECT_EQ(object->refCount(), 2U);
    Lumen::Ptr<Object> out;
    unsigned index = 0;
    ASSERT_TRUE(queue.deq(out, index));
    EXPECT_EQ(out, object);
    EXPECT_EQ(object->refCount(), 2U);
    out = nullptr;
    EXPECT_EQ(object->refCount(), 1U);
    for (unsigned i = 0; i < 100; ++i) {
      queue.enq(object);
    }
    for (unsigned i = 0; i < 10; ++i) {
      ASSERT_TRUE(queue.deq(out, index));
    }
    EXPECT_EQ(object->refCount(), 92U);
    queue.doClear(true);
    EXPECT_EQ(object->refCount(), 2U);
    queue.enq(object);
    queue.enq(Object::make(2));
  }
  EXPECT_EQ(Object::tracker().liveObjects(), objects);
  EXPECT_EQ(Handles::chunkTracker().liveObjects(), chunks);
  EXPECT_EQ(Handles::elementTracker().liveObjects(), slots);
  EXPECT_EQ(Handles::elementTracker().liveBytes(), slots * 8);
}

TEST(RQueue, BehavesLikeADequeUnderRandomOperations) {
  for (unsigned seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const std::uint32_t first = seed % 2 == 0 ? 1 : 0xffffff00U + random() % 256;
    Numbers queue(first);
    std::deque<std::pair<std::uint32_t, unsigned>> model;
    std::uint32_t next = first;
    for (unsigned step = 0; step < 20000; ++step) {
      const unsigned bias = step / 2000 % 2 == 0 ? 60 : 40;
      const unsigned dice = random() % 100;
      if (dice < bias) {
        const unsigned value = random();
        ASSERT_EQ(queue.enq(value), next);
        model.emplace_back(next++, value);
      } else if (dice == 99 && random() % 50 == 0) {
        queue.doClear(true);
        model.clear();
      } else {
        unsigned value = 0;
        unsigned index = 0;
        ASSERT_EQ(queue.deq(value, index), !model.empty());
        if (!model.empty()) {
          ASSERT_EQ(std::pair(index, value), model.front());
          model.pop_front();
        }
      }
      ASSERT_EQ(queue.size(), model.size());
      ASSERT_EQ(queue.empty(), model.empty());
      ASSERT_EQ(queue.frontIndex(), next - static_cast<std::uint32_t>(model.size()));
      ASSERT_EQ(queue.backIndex(), next - 1);
      const auto probe = static_cast<std::uint32_t>(next + 20 - random() % (model.size() + 40));
      const std::uint32_t place = probe - (next - static_cast<std::uint32_t>(model.size()));
      const unsigned* found = queue.at(probe);
      ASSERT_EQ(found != nullptr, place < model.size());
      if (found != nullptr) {
        ASSERT_EQ(*found, model[place].second);
      }
    }
  }
}

struct Element {
  Lumen::IntrusiveLinkedTailQueueLink link;
};
using List = Lumen::IntrusiveLinkedTailQueue<Element, &Element::link>;

TEST(IntrusiveLinkedTailQueue, TakesElementsOutInTheOrderOfTheirComing) {
  Element first;
  Element second;
  List list;
  list.push(&first);
  EXPECT_TRUE(first.link.linked());
  list.push(&second);
  EXPECT_EQ(list.front(), &first);
  EXPECT_EQ(list.tail(), &second);
  EXPECT_EQ(list.pop(), &first);
  EXPECT_FALSE(first.link.linked());
  EXPECT_EQ(list.pop(), &second);
  EXPECT_TRUE(list.empty());
}

TEST(IntrusiveLinkedTailQueueDeathTest, AssertsOnAnEmptyList) {
  List list;
  EXPECT_DEATH(list.pop(), "`tail_ != nullptr' failed");
  EXPECT_DEATH(static_cast<void>(list.front()), "`tail_ != nullptr' failed");
}

TEST(IntrusiveLinkedTailQueueDeathTest, AssertsThatALinkedElementIsNotDestroyed) {
  EXPECT_DEATH(
      {
        List list;
        Element element;
        list.push(&element);
      },
      "`!linked\\(\\)' failed");
}

TEST(UtilDeathTest, TakesTheLogarithmOfPowersOfTwoOnly) {
  EXPECT_EQ(Lumen::powerOfTwoLog2(1), 0U);
  EXPECT_EQ(Lumen::powerOfTwoLog2(8192), 13U);
  EXPECT_DEATH(static_cast<void>(Lumen::powerOfTwoLog2(12)), "`isPowerOfTwo\\( i \\)' failed");
  EXPECT_DEATH(static_cast<void>(Lumen::powerOfTwoLog2(0)), "`isPowerOfTwo\\( i \\)' failed");
}

}  // namespace
