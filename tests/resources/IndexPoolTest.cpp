#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <set>

#include "PactResourceTable/IndexPool.h"

namespace {

using PactResourceTable::IndexPool;

// Limits on both sides of a word's end.
class IndexPoolLimits : public testing::TestWithParam<std::uint32_t> {};
INSTANTIATE_TEST_SUITE_P(Words, IndexPoolLimits, testing::Values(1, 2, 63, 64, 65, 127, 128, 255));

TEST_P(IndexPoolLimits, GivesEachNumberOfTheRangeOnceAndThenNone) {
  IndexPool pool(GetParam());
  EXPECT_EQ(pool.limit(), GetParam());
  std::set<std::uint32_t> given;
  for (std::uint32_t i = 0; i < GetParam(); ++i) {
    EXPECT_EQ(pool.taken(), i);
    const std::uint32_t index = pool.take();
    EXPECT_GE(index, 1U);
    EXPECT_LE(index, GetParam());
    EXPECT_TRUE(given.insert(index).second) << index;
  }
  EXPECT_EQ(pool.take(), 0U);
  EXPECT_EQ(pool.taken(), GetParam());
}

TEST_P(IndexPoolLimits, FindsTheOneThatIsFreeWhereverItIs) {
  IndexPool pool(GetParam());
  while (pool.take() != 0) {
  }
  for (std::uint32_t index = 1; index <= GetParam(); ++index) {
    pool.give(index);
    EXPECT_FALSE(pool.isTaken(index));
    EXPECT_EQ(pool.taken(), GetParam() - 1);
    EXPECT_EQ(pool.take(), index);
    EXPECT_TRUE(pool.isTaken(index));
  }
  for (std::uint32_t index = GetParam(); index >= 1; --index) {
    pool.give(index);
    EXPECT_EQ(pool.take(), index);
  }
  EXPECT_EQ(pool.take(), 0U);
}

TEST_P(IndexPoolLimits, TakesANumberThatIsNamedOnceAndNoneBeyondTheRange) {
  IndexPool pool(GetParam());
  EXPECT_FALSE(pool.takeThis(0));
  EXPECT_FALSE(pool.takeThis(GetParam() + 1));
  EXPECT_EQ(pool.taken(), 0U);
  EXPECT_TRUE(pool.takeThis(GetParam()));
  EXPECT_TRUE(pool.isTaken(GetParam()));
  EXPECT_FALSE(pool.takeThis(GetParam()));
  EXPECT_EQ(pool.taken(), 1U);
  for (std::uint32_t i = 1; i < GetParam(); ++i) {
    EXPECT_NE(pool.take(), GetParam());
  }
  EXPECT_EQ(pool.take(), 0U);
}

TEST(IndexPool, ANumberThatCameBackIsTheLastToGoOutAgain) {
  IndexPool pool(5);
  EXPECT_EQ(pool.take(), 1U);
  EXPECT_EQ(pool.take(), 2U);
  pool.give(1);
  EXPECT_EQ(pool.take(), 3U);
  EXPECT_EQ(pool.take(), 4U);
  EXPECT_EQ(pool.take(), 5U);
  EXPECT_EQ(pool.take(), 1U);
  EXPECT_EQ(pool.take(), 0U);
}

TEST(IndexPool, OfNoNumbersGivesNone) {
  IndexPool pool(0);
  EXPECT_EQ(pool.take(), 0U);
  EXPECT_FALSE(pool.takeThis(0));
  EXPECT_FALSE(pool.takeThis(1));
}

TEST(IndexPool, AgreesWithASetOverRandomSteps) {
  constexpr std::uint32_t kLimit = 150;
  const auto seed = static_cast<std::uint32_t>(std::random_device()());
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 random(seed);
  IndexPool pool(kLimit);
  std::set<std::uint32_t> taken;
  for (int step = 0; step < 20000; ++step) {
    const std::uint32_t index = random() % kLimit + 1;
    switch (random() % 3) {
      case 0:
        if (const std::uint32_t got = pool.take(); got != 0) {
          ASSERT_TRUE(taken.insert(got).second) << got;
        } else {
          ASSERT_EQ(taken.size(), kLimit);
        }
        break;
      case 1:
        ASSERT_EQ(pool.takeThis(index), taken.insert(index).second) << index;
        break;
      default:
        if (taken.erase(index) != 0) {
          pool.give(index);
        }
    }
    ASSERT_EQ(pool.taken(), taken.size());
    ASSERT_EQ(pool.isTaken(index), taken.contains(index)) << index;
  }
}

TEST(IndexPoolDeathTest, ANumberThatIsFreeCannotBeGivenBack) {
  IndexPool pool(5);
  const std::uint32_t index = pool.take();
  pool.give(index);
  EXPECT_DEATH(pool.give(index), "isTaken");
}

}  // namespace
