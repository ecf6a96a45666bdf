#include "Brio/HashMap2018.h"

#include <gtest/gtest.h>

#include "Lumen/Node.h"
#include "Lumen/Ptr.h"

namespace {

struct HN_Number : Brio::Hm2018NE<1653092364, std::uint32_t, std::uint64_t, 1> {
  using Hm2018NE::Hm2018NE;
};

TEST(HashMap2018, KeepsWhatIsInserted) {
  Brio::HashMap2018<HN_Number> map;
  for (std::uint32_t i = 0; i < 100000; ++i) {
    const auto arg = map.hashed(i);
    ASSERT_EQ(map.find(arg), nullptr);
    ASSERT_EQ(map.newMember(arg, HN_Number(i, i * 3ULL)).key(), i);
  }
  EXPECT_EQ(map.size(), 100000U);
  for (std::uint32_t i = 0; i < 100000; ++i) {
    ASSERT_NE(map[i], nullptr);
    ASSERT_EQ(map[i]->value(), i * 3ULL);
  }
  unsigned count = 0;
  for (const HN_Number& node : map) {
    EXPECT_EQ(node.value(), node.key() * 3ULL);
    ++count;
  }
  EXPECT_EQ(count, 100000U);
  for (std::uint32_t i = 0; i < 100000; ++i) {
    ASSERT_TRUE(map.del(i));
    ASSERT_FALSE(map.del(i));
  }
  EXPECT_TRUE(map.empty());
}

}  // namespace
