#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <vector>

#include "TestRecords.h"

namespace StoreTest {
namespace {

TEST(QuiltMap, FindsWhatWasStoredAndTheDefaultRecordOtherwise) {
  Store store;
  const auto entity = store.mount<ConfigQuilt>("a/config/1", 100);
  bool found = true;
  EXPECT_EQ(entity->map().find(ConfigKey{5}, found), ConfigRecord{});
  EXPECT_FALSE(found);
  entity->swTableEntriesIs(ConfigRecord::of(5, 1));
  EXPECT_EQ(entity->map().find(ConfigKey{5}, found), ConfigRecord::of(5, 1));
  EXPECT_TRUE(found);
  entity->swTableEntriesIs(ConfigRecord::of(5, 2));
  EXPECT_EQ(entity->map().find(ConfigKey{5}, found), ConfigRecord::of(5, 2));
  EXPECT_EQ(entity->map().size(), 1U);
  EXPECT_TRUE(entity->swTableEntriesDel(ConfigKey{5}));
  EXPECT_FALSE(entity->swTableEntriesDel(ConfigKey{5}));
  EXPECT_EQ(entity->map().find(ConfigKey{5}, found), ConfigRecord{});
  EXPECT_FALSE(found);
  EXPECT_EQ(entity->map().size(), 0U);
}

}  // namespace
}  // namespace StoreTest
