#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <random>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include "Lumen/Node.h"
#include "Lumen/Ptr.h"
#include "Lumen/SlabAlloc.h"
#include "Lumen/ThreadControl.h"
#include "PoolSlab/Slabbed.h"

namespace {

using PoolSlab::slabAllocOrStdMalloc;
using PoolSlab::slabFreeOrStdFree;

class Pebble : public Lumen::Node, public PoolSlab::Slabbed<Pebble> {
 public:
  static constexpr const char* className() { return "Pebble"; }
};

class Boulder : public Pebble, public PoolSlab::Slabbed<Boulder> {
 public:
  static constexpr const char* className() { return "Boulder"; }
  using PoolSlab::Slabbed<Boulder>::operator new;
  using PoolSlab::Slabbed<Boulder>::operator delete;
  using PoolSlab::Slabbed<Boulder>::tracker;

  std::array<char, 700> bulk{};
};

TEST(Slab, AlignsEveryBlockAndKeepsBlocksApart) {
  std::vector<std::pair<unsigned char*, std::size_t>> blocks;
  for (std::size_t bytes = 0; bytes <= 600; ++bytes) {
    for (int copy = 0; copy < 3; ++copy) {
      auto* memory = static_cast<unsigned char*>(slabAllocOrStdMalloc(bytes));
      ASSERT_NE(memory, nullptr);
      EXPECT_EQ(reinterpret_cast<std::uintptr_t>(memory) % alignof(std::max_align_t), 0U);
      std::memset(memory, static_cast<int>(blocks.size() & 0xff), bytes);
      blocks.emplace_back(memory, bytes);
    }
  }
  for (std::size_t i = 0; i < blocks.size(); ++i) {
    const auto [memory, bytes] = blocks[i];
    for (std::size_t at = 0; at < bytes; ++at) {
      ASSERT_EQ(memory[at], i & 0xff) << "block of " << bytes << " bytes";
    }
    slabFreeOrStdFree(memory, bytes);
  }
}

TEST(Slab, ReusesWhatWasGivenBack) {
  if (PoolSlab::kPassThrough) {
    GTEST_SKIP() << "every block comes from malloc under a sanitizer";
  }
  void* first = slabAllocOrStdMalloc(200);
  slabFreeOrStdFree(first, 200);
  void* sameClass = slabAllocOrStdMalloc(193);
  EXPECT_EQ(sameClass, first);
  slabFreeOrStdFree(sameClass, 193);

  const auto fill = [] {
    std::vector<void*> blocks;
    for (int i = 0; i < 5000; ++i) {
      blocks.push_back(slabAllocOrStdMalloc(48));
    }
    for (void* block : blocks) {
      slabFreeOrStdFree(block, 48);
    }
  };
  fill();
  const std::size_t taken = PoolSlab::slabChunkBytes();
  EXPECT_GE(taken, 5000U * 48);
  fill();
  EXPECT_EQ(PoolSlab::slabChunkBytes(), taken);
}

TEST(Slab, LeavesLargeBlocksToTheGeneralHeap) {
  const std::size_t taken = PoolSlab::slabChunkBytes();
  for (int i = 0; i < 1000; ++i) {
    void* memory = slabAllocOrStdMalloc(PoolSlab::kLargestSize + 1);
    ASSERT_NE(memory, nullptr);
    slabFreeOrStdFree(memory, PoolSlab::kLargestSize + 1);
  }
  EXPECT_EQ(PoolSlab::slabChunkBytes(), taken);
}

TEST(Slab, IgnoresTheFreeOfNull) {
  slabFreeOrStdFree(nullptr, 64);
  slabFreeOrStdFree(nullptr, 6400);
  void* memory = slabAllocOrStdMalloc(64);
  EXPECT_NE(memory, nullptr);
  slabFreeOrStdFree(memory, 64);
}

TEST(Slab, NeverGivesOneBlockOutTwice) {
  std::mt19937 random(20240611);
  std::vector<std::pair<void*, std::size_t>> held;
  std::set<void*> addresses;
  for (int step = 0; step < 100000; ++step) {
    if (held.empty() || random() % 5 < 3) {
      const std::size_t bytes = random() % 520;
      void* memory = slabAllocOrStdMalloc(bytes);
      ASSERT_TRUE(addresses.insert(memory).second);
      held.emplace_back(memory, bytes);
    } else {
      std::swap(held[random() % held.size()], held.back());
      addresses.erase(held.back().first);
      slabFreeOrStdFree(held.back().first, held.back().second);
      held.pop_back();
    }
  }
  for (const auto& [memory, bytes] : held) {
    slabFreeOrStdFree(memory, bytes);
  }
}

TEST(Slab, CountsOfAClassReturnToWhereTheyWere) {
  const std::uint64_t allocations = Pebble::tracker().allocations();
  {
    std::vector<Lumen::Ptr<Pebble>> pebbles;
    for (int i = 0; i < 10; ++i) {
      pebbles.push_back(Lumen::makeNode<Pebble>());
    }
    const Lumen::Ptr<Pebble> boulder = Lumen::makeNode<Boulder>();
    EXPECT_EQ(Pebble::tracker().liveObjects(), 10U);
    EXPECT_EQ(Pebble::tracker().liveBytes(), 10 * sizeof(Pebble));
    EXPECT_EQ(Boulder::tracker().liveObjects(), 1U);
    EXPECT_EQ(Boulder::tracker().liveBytes(), sizeof(Boulder));
  }
  EXPECT_EQ(Pebble::tracker().liveObjects(), 0U);
  EXPECT_EQ(Pebble::tracker().liveBytes(), 0U);
  EXPECT_EQ(Pebble::tracker().allocations(), allocations + 10);
  EXPECT_EQ(Boulder::tracker().liveObjects(), 0U);
  EXPECT_EQ(Boulder::tracker().liveBytes(), 0U);
}

// Turns threads on for the rest of the process, so it runs last of all: gtest runs "death" suites
// first and the others in the order of the sources, and a filter of the test runner starts a
// process per test.
TEST(SlabThreads, KeepTheListsOfAProcessThatTurnedThreadsOnLate) {
  std::vector<void*> early;
  for (int i = 0; i < 100; ++i) {
    early.push_back(slabAllocOrStdMalloc(80));
  }
  for (int i = 0; i < 50; ++i) {
    slabFreeOrStdFree(early.back(), 80);
    early.pop_back();
  }
  const bool before = Lumen::ThreadControl::threaded();
  Lumen::ThreadControl::threadedIs(true);
  constexpr int kThreads = 4;
  constexpr int kRounds = 1000000;
  std::atomic<int> waiting{kThreads};
  std::vector<std::thread> threads;
  for (int id = 0; id < kThreads; ++id) {
    threads.emplace_back([id, &waiting] {
      --waiting;
      while (waiting != 0) {
        std::this_thread::yield();
      }
      std::vector<std::uint64_t*> mine;
      for (int round = 0; round < kRounds; ++round) {
        auto* memory = static_cast<std::uint64_t*>(slabAllocOrStdMalloc(80));
        for (int word = 0; word < 10; ++word) {
          memory[word] = static_cast<std::uint64_t>(id) << 32 | static_cast<unsigned>(round);
        }
        mine.push_back(memory);
        if (mine.size() > 64) {
          std::uint64_t* oldest = mine[static_cast<std::size_t>(round) % mine.size()];
          for (int word = 1; word < 10; ++word) {
            ASSERT_EQ(oldest[word], oldest[0]) << "another thread wrote into this block";
          }
          ASSERT_EQ(oldest[0] >> 32, static_cast<std::uint64_t>(id));
          slabFreeOrStdFree(oldest, 80);
          std::swap(mine[static_cast<std::size_t>(round) % mine.size()], mine.back());
          mine.pop_back();
        }
      }
      for (std::uint64_t* memory : mine) {
        slabFreeOrStdFree(memory, 80);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (void* memory : early) {
    slabFreeOrStdFree(memory, 80);
  }
  std::set<void*> distinct;
  std::vector<void*> again;
  for (int i = 0; i < 1000; ++i) {
    again.push_back(slabAllocOrStdMalloc(80));
    EXPECT_TRUE(distinct.insert(again.back()).second);
  }
  for (void* memory : again) {
    slabFreeOrStdFree(memory, 80);
  }
  // All threads are gone, so the plain form is safe again for the tests that follow.
  Lumen::ThreadControl::threadedIs(before);
}

}  // namespace
