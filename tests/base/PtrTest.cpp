#include "Lumen/Ptr.h"

#include <gtest/gtest.h>

#include "Lumen/Assert.h"
#include "Lumen/Node.h"
#include "PoolSlab/Slabbed.h"

namespace {

class Leaf : public Lumen::Node, public PoolSlab::Slabbed<Leaf> {
 public:
  static constexpr const char* className() { return "Leaf"; }
};

TEST(Ptr, DestroysTheNodeWithItsLastUser) {
  auto first = Lumen::makeNode<Leaf>();
  EXPECT_EQ(first->refCount(), 1U);
  EXPECT_EQ(Leaf::tracker().liveObjects(), 1U);
  {
    const Lumen::Ptr<const Leaf> second = first;
    EXPECT_EQ(first->refCount(), 2U);
  }
  EXPECT_EQ(first->refCount(), 1U);
  first = nullptr;
  EXPECT_EQ(Leaf::tracker().liveObjects(), 0U);
}

TEST(Ptr, KeepsFlagsApartFromTheCount) {
  const auto node = Lumen::makeNode<Leaf>();
  node->nodeFlagSet(Lumen::Node::kHasNotificationActive, true);
  EXPECT_EQ(node->refCount(), 1U);
  EXPECT_TRUE(node->nodeFlag(0x20000000));
  node->nodeFlagSet(Lumen::Node::kHasNotificationActive, false);
  EXPECT_FALSE(node->nodeFlag(0x20000000));
}

TEST(AssertDeathTest, EndsTheProcessWithTheExpressionAsItsText) {
  EXPECT_DEATH(Lumen::assertThat(false, "currEntryVersion.valid()"),
               "PtrTest.cpp:.*Assertion `currEntryVersion.valid\\(\\)' failed");
}

}  // namespace
